#include "SwaySupport.h"

#include "support/TestSupport.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTest>

namespace dictora::test::sway {

namespace {

// Blocking: checkSession() runs before there is an event loop.
QByteArray swaymsg(const QStringList &arguments, bool *ok)
{
    QProcess process;
    process.start(QStringLiteral("swaymsg"), arguments);
    const bool finished = process.waitForFinished(10000);
    if (!finished)
        process.kill();
    *ok = finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return process.readAllStandardOutput() + process.readAllStandardError();
}

// Depth-first search of the tree for the focused leaf or one with an app id.
QJsonObject findNode(const QJsonObject &node, const std::function<bool(const QJsonObject &)> &match)
{
    if (match(node))
        return node;
    for (const char *key : {"nodes", "floating_nodes"}) {
        for (const QJsonValue &child : node.value(QLatin1String(key)).toArray()) {
            const QJsonObject found = findNode(child.toObject(), match);
            if (!found.isEmpty())
                return found;
        }
    }
    return {};
}

QJsonObject tree()
{
    bool ok = false;
    const QByteArray json = swaymsg({QStringLiteral("-t"), QStringLiteral("get_tree"), QStringLiteral("-r")}, &ok);
    return ok ? QJsonDocument::fromJson(json).object() : QJsonObject();
}

// Sway names an XWayland window by its class, a native one by its app id.
QString appIdOf(const QJsonObject &node)
{
    const QString appId = node.value(QLatin1String("app_id")).toString();
    return appId.isEmpty() ? node.value(QLatin1String("window_properties"))[QLatin1String("class")].toString()
                           : appId;
}

} // namespace

int checkSession()
{
    if (qEnvironmentVariableIsEmpty("SWAYSOCK") || qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return skipAll("needs a Sway session: run under tests/support/wayland/with-sway");
    bool ok = false;
    swaymsg({QStringLiteral("-t"), QStringLiteral("get_version")}, &ok);
    if (!ok)
        return skipAll("swaymsg cannot reach the Sway session");
    return 0;
}

bool command(const QString &text, QString *why)
{
    bool ok = false;
    const QByteArray reply = swaymsg({text}, &ok);
    if (!ok && why)
        *why = QStringLiteral("swaymsg '%1' failed: %2").arg(text, QString::fromUtf8(reply));
    return ok;
}

QString focusedAppId()
{
    const QJsonObject focused = findNode(tree(), [](const QJsonObject &node) {
        return node.value(QLatin1String("focused")).toBool() && node.value(QLatin1String("pid")).toInt() > 0;
    });
    return appIdOf(focused);
}

bool waitForWindow(const QString &appId, bool focused, QString *why)
{
    if (QTest::qWaitFor([&] {
            const QJsonObject node = findNode(tree(), [&](const QJsonObject &n) { return appIdOf(n) == appId; });
            return !node.isEmpty() && (!focused || node.value(QLatin1String("focused")).toBool());
        }, 30000))
        return true;
    *why = QStringLiteral("no %1window \"%2\" within 30 s; focused is \"%3\"")
               .arg(focused ? QStringLiteral("focused ") : QString(), appId, focusedAppId());
    return false;
}

bool focus(const QString &appId, QString *why)
{
    return command(QStringLiteral("[app_id=\"%1\"] focus").arg(appId), why) && waitForWindow(appId, true, why);
}

Foot::Foot(QString appId, QString file)
    : m_appId(std::move(appId)), m_file(std::move(file))
{
}

Foot::~Foot()
{
    if (m_started)
        command(QStringLiteral("[app_id=\"%1\"] kill").arg(m_appId));
}

bool Foot::start(QString *why)
{
    QFile::remove(m_file);
    // Raw mode hands every byte to cat at once, control characters too.
    const QString shell = QStringLiteral("stty raw -echo; exec cat > '%1'").arg(m_file);
    if (!command(QStringLiteral("exec foot --app-id=%1 sh -c \"%2\"").arg(m_appId, shell), why))
        return false;
    m_started = true;
    if (!QTest::qWaitFor([&] { return QFile::exists(m_file); }, 30000)) {
        *why = QStringLiteral("foot never started its shell");
        return false;
    }
    return waitForWindow(m_appId, true, why);
}

QString Foot::received() const { return QString::fromUtf8(readFile(m_file)); }

bool Foot::waitFor(const QString &expected, int timeoutMs, QString *actual) const
{
    return QTest::qWaitFor([&] { return (*actual = received()) == expected; }, timeoutMs);
}

} // namespace dictora::test::sway
