#include "FakePortal.h"

#include <QDBusMessage>
#include <QDBusPendingReply>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

namespace dictora::test {

namespace {
constexpr auto kPortalService = "org.freedesktop.portal.Desktop";
constexpr auto kPortalPath = "/org/freedesktop/portal/desktop";
constexpr auto kControl = "org.dictora.test.FakePortal";
// Debian's interpreter: a python3 first on PATH (pyenv, venv) may lack the dbus bindings.
constexpr auto kPython = "/usr/bin/python3";
} // namespace

QString FakePortal::unavailableReason()
{
    if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty())
        return QStringLiteral("dbus-daemon is not installed (Debian package dbus)");
    QProcess check;
    check.start(QLatin1String(kPython), {QStringLiteral("-c"), QStringLiteral("import dbus, dbus.service; from gi.repository import GLib")});
    if (!check.waitForFinished(10000) || check.exitCode() != 0)
        return QStringLiteral("python3-dbus or python3-gi is missing");
    return {};
}

FakePortal::~FakePortal()
{
    for (const QString &name : std::as_const(m_connections))
        QDBusConnection::disconnectFromBus(name);
    for (QProcess *process : {&m_portal, &m_bus}) {
        if (process->state() != QProcess::NotRunning) {
            process->terminate();
            if (!process->waitForFinished(3000)) {
                process->kill();
                process->waitForFinished(3000);
            }
        }
    }
}

bool FakePortal::start(const QStringList &portalOptions)
{
    m_bus.start(QStringLiteral("dbus-daemon"), {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                                  QStringLiteral("--print-address")});
    if (!m_bus.waitForStarted(5000)) {
        m_error = QStringLiteral("dbus-daemon did not start");
        return false;
    }
    while (!m_bus.canReadLine()) {
        if (!m_bus.waitForReadyRead(10000)) {
            m_error = QStringLiteral("dbus-daemon printed no address");
            return false;
        }
    }
    m_address = QString::fromUtf8(m_bus.readLine()).trimmed();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_address);
    m_portal.setProcessEnvironment(env);
    m_portal.setProcessChannelMode(QProcess::SeparateChannels);
    m_portal.start(QLatin1String(kPython), QStringList{QStringLiteral(DICTORA_FAKE_PORTAL)} + portalOptions);
    // "ready" comes once the portal's name is on the bus.
    while (!m_portal.canReadLine()) {
        if (!m_portal.waitForReadyRead(15000)) {
            m_error = QStringLiteral("the fake portal did not start: ") + QString::fromUtf8(m_portal.readAllStandardError());
            return false;
        }
    }
    return m_portal.readLine().trimmed() == "ready";
}

QDBusConnection FakePortal::connect(const QString &name)
{
    m_connections << name;
    return QDBusConnection::connectToBus(m_address, name);
}

void FakePortal::control(const QString &method, const QVariantList &arguments)
{
    QDBusConnection bus = connect(QStringLiteral("fake-portal-control"));
    QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(kPortalService), QLatin1String(kPortalPath),
        QLatin1String(kControl), method);
    call.setArguments(arguments);
    const QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
    if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty())
        m_lastReply = reply.arguments().first();
}

qint64 FakePortal::press(const QString &shortcutId)
{
    QDBusPendingReply<qint64> reply = pressAsync(shortcutId);
    reply.waitForFinished();
    return reply.isValid() ? reply.value() : 0;
}

QDBusPendingCall FakePortal::pressAsync(const QString &shortcutId)
{
    QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(kPortalService), QLatin1String(kPortalPath),
        QLatin1String(kControl), QStringLiteral("Press"));
    call << shortcutId;
    return connect(QStringLiteral("fake-portal-control")).asyncCall(call);
}

void FakePortal::release(const QString &shortcutId) { control(QStringLiteral("Release"), {shortcutId}); }
void FakePortal::changeTrigger(const QString &trigger, const QString &shortcutId)
{
    control(QStringLiteral("ChangeTrigger"), {shortcutId, trigger});
}
void FakePortal::setAnswers(const QString &bind, const QString &consent)
{
    control(QStringLiteral("SetAnswers"), {bind, consent});
}
void FakePortal::closeSessions() { control(QStringLiteral("CloseSessions")); }

QJsonArray FakePortal::calls()
{
    m_lastReply.clear();
    control(QStringLiteral("Calls"));
    return QJsonDocument::fromJson(m_lastReply.toString().toUtf8()).array();
}

QJsonArray FakePortal::calls(const QString &method)
{
    QJsonArray matching;
    for (const QJsonValue &call : calls()) {
        if (call.toObject().value(QStringLiteral("method")).toString() == method)
            matching.append(call.toObject().value(QStringLiteral("args")));
    }
    return matching;
}

} // namespace dictora::test
