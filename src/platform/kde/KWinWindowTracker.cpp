#include "platform/kde/KWinWindowTracker.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QJsonArray>
#include <QJsonDocument>

#include <atomic>

#include <unistd.h>

namespace dictora::kde {

namespace {

const QString kwinService = QStringLiteral("org.kde.KWin");
const QString scriptingPath = QStringLiteral("/Scripting");
const QString scriptingInterface = QStringLiteral("org.kde.kwin.Scripting");
const QString reportsInterface = QStringLiteral("org.dictora.KWinWindowReports");

// A JavaScript string literal for any text.
QString jsString(const QString &text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

QDBusMessage scriptingCall(const QString &method, const QVariantList &arguments = {})
{
    QDBusMessage message = QDBusMessage::createMethodCall(kwinService, scriptingPath, scriptingInterface, method);
    message.setArguments(arguments);
    return message;
}

// KWin 5 names windows "clients", KWin 6 "windows"; the script speaks both.
const char trackerBody[] = R"JS(
function report(w) {
    if (!w) {
        callDBus(service, path, iface, "activeWindowChanged", "", "", "", "", "0");
        return;
    }
    callDBus(service, path, iface, "activeWindowChanged", String(w.internalId),
             String(w.desktopFileName || ""), String(w.resourceClass || ""),
             String(w.resourceName || ""), String(w.pid || 0));
}
(workspace.windowActivated || workspace.clientActivated).connect(report);
report(workspace.activeWindow !== undefined ? workspace.activeWindow : workspace.activeClient);
)JS";

const char activationBody[] = R"JS(
var windows = workspace.windowList ? workspace.windowList() : workspace.clientList();
for (var i = 0; i < windows.length; ++i) {
    if (String(windows[i].internalId) !== wanted)
        continue;
    if (workspace.activeWindow !== undefined)
        workspace.activeWindow = windows[i];
    else
        workspace.activeClient = windows[i];
    break;
}
callDBus(service, path, iface, "activationDone", plugin);
)JS";

} // namespace

// What KWin's scripts call; lives on the bus at the tracker's own path.
class KWinReports : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.dictora.KWinWindowReports")
public:
    explicit KWinReports(KWinWindowTracker &tracker) : m_tracker(tracker) {}

public Q_SLOTS:
    Q_SCRIPTABLE void activeWindowChanged(const QString &id, const QString &desktopFileName,
                                          const QString &resourceClass, const QString &resourceName,
                                          const QString &pid)
    {
        m_tracker.onActiveWindow({id, desktopFileName, resourceClass, resourceName, pid.toInt()});
    }
    Q_SCRIPTABLE void activationDone(const QString &pluginName) { m_tracker.onActivationDone(pluginName); }

private:
    KWinWindowTracker &m_tracker;
};

QString KWinWindowTracker::scriptFolderTemplate()
{
    QString base = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (base.isEmpty())
        base = QDir::tempPath();
    const QDir dir(base);
    for (const QString &name : dir.entryList({QStringLiteral("dictora-kwin-*")}, QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString pid = name.section(QLatin1Char('-'), 2, 2);
        if (!pid.isEmpty() && !QFileInfo::exists(QStringLiteral("/proc/") + pid))
            QDir(dir.filePath(name)).removeRecursively();
    }
    return dir.filePath(QStringLiteral("dictora-kwin-%1-XXXXXX").arg(::getpid()));
}

KWinWindowTracker::KWinWindowTracker(QDBusConnection bus)
    : m_bus(std::move(bus))
{
    static std::atomic<int> instances{0};
    const int instance = ++instances;
    m_objectPath = QStringLiteral("/org/dictora/KWinWindowTracker/%1").arg(instance);
    m_trackerName = QStringLiteral("dictora-window-tracker-%1-%2").arg(::getpid()).arg(instance);

    if (!m_bus.isConnected()) {
        m_failure = QStringLiteral("There is no session bus, so Dictora cannot ask KWin which window has focus.");
        return;
    }
    if (!m_scripts.isValid()) {
        m_failure = QStringLiteral("Cannot create a folder for KWin scripts: ") + m_scripts.errorString();
        return;
    }
    m_reports = std::make_unique<KWinReports>(*this);
    if (!m_bus.registerObject(m_objectPath, m_reports.get(), QDBusConnection::ExportScriptableSlots)) {
        m_failure = QStringLiteral("Cannot offer KWin a place on the session bus to report the focused window.");
        return;
    }
    if (!loadTrackerScript(true))
        return;
    // A restarted KWin has forgotten the script.
    m_kwinWatcher = std::make_unique<QDBusServiceWatcher>(kwinService, m_bus,
        QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration);
    QObject::connect(m_kwinWatcher.get(), &QDBusServiceWatcher::serviceRegistered, m_reports.get(),
        [this] { loadTrackerScript(false); });
    QObject::connect(m_kwinWatcher.get(), &QDBusServiceWatcher::serviceUnregistered, m_reports.get(),
        [this] { onActiveWindow({}); });
}

KWinWindowTracker::~KWinWindowTracker()
{
    if (!m_reports)
        return;
    m_bus.unregisterObject(m_objectPath);
    // Waited for (briefly): at exit a message merely queued is lost, and
    // KWin would keep our script until it restarts.
    for (const QString &name : std::as_const(m_pendingActivations))
        unloadScript(name);
    if (m_failure.isEmpty())
        unloadScript(m_trackerName, true);
}

QString KWinWindowTracker::scriptHeader() const
{
    return QStringLiteral("var service = %1, path = %2, iface = %3;\n")
        .arg(jsString(m_bus.baseService()), jsString(m_objectPath), jsString(reportsInterface));
}

QString KWinWindowTracker::writeScript(const QString &name, const QString &body)
{
    const QString path = m_scripts.filePath(name + QStringLiteral(".js"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return {};
    // Its own scope: KWin may run our scripts in one engine.
    const QByteArray text = (QStringLiteral("(function () {\n") + body + QStringLiteral("})();\n")).toUtf8();
    if (file.write(text) != text.size())
        return {};
    return path;
}

bool KWinWindowTracker::loadTrackerScript(bool wait)
{
    const QString path = writeScript(m_trackerName, scriptHeader() + QLatin1String(trackerBody));
    if (path.isEmpty()) {
        m_failure = QStringLiteral("Cannot write the KWin script to ") + m_scripts.path();
        return false;
    }
    const QDBusMessage load = scriptingCall(QStringLiteral("loadScript"), {path, m_trackerName});
    if (!wait) {
        m_bus.send(load);
        m_bus.send(scriptingCall(QStringLiteral("start")));
        return true;
    }
    if (!m_bus.interface() || !m_bus.interface()->isServiceRegistered(kwinService)) {
        m_failure = QStringLiteral("KWin does not answer on the session bus (org.kde.KWin), "
                                   "so Dictora cannot tell which window to paste into.");
        return false;
    }
    // Once, at start-up: a KWin that does not answer within the bound is not one to rely on.
    QDBusMessage reply = m_bus.call(load, QDBus::Block, 2000);
    if (reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toInt() < 0) {
        // A script by this name is left from an earlier process that had our pid and died.
        unloadScript(m_trackerName, true);
        reply = m_bus.call(load, QDBus::Block, 2000);
    }
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        m_failure = QStringLiteral("KWin did not load the window tracking script: ") + reply.errorMessage();
        return false;
    }
    if (reply.arguments().constFirst().toInt() < 0) {
        m_failure = QStringLiteral("KWin refused the window tracking script.");
        return false;
    }
    m_bus.send(scriptingCall(QStringLiteral("start")));
    return true;
}

void KWinWindowTracker::unloadScript(const QString &pluginName, bool wait)
{
    const QDBusMessage unload = scriptingCall(QStringLiteral("unloadScript"), {pluginName});
    if (wait)
        m_bus.call(unload, QDBus::Block, 1000);
    else
        m_bus.send(unload);
}

void KWinWindowTracker::onActiveWindow(const Report &report)
{
    const QMutexLocker lock(&m_mutex);
    m_active = report;
    if (!report.id.isEmpty() && !m_handles.contains(report.id)) {
        const quint64 handle = m_nextHandle++;
        m_handles.insert(report.id, handle);
        m_ids.insert(handle, report.id);
    }
}

void KWinWindowTracker::onActivationDone(const QString &pluginName)
{
    if (!m_pendingActivations.removeOne(pluginName))
        return;
    unloadScript(pluginName);
    QFile::remove(m_scripts.filePath(pluginName + QStringLiteral(".js")));
}

std::optional<FrontmostWindow> KWinWindowTracker::frontmostWindow()
{
    Report active;
    quint64 handle = 0;
    {
        const QMutexLocker lock(&m_mutex);
        if (m_active.id.isEmpty())
            return std::nullopt;
        active = m_active;
        handle = m_handles.value(active.id);
    }
    FrontmostWindow window;
    // Native Wayland windows name themselves by app id, which KWin keeps
    // as the desktop file name; X11 ones by their class.
    window.windowClass = active.desktopFileName.isEmpty() ? active.resourceClass : active.desktopFileName;
    window.instanceName = active.resourceName;
    window.processId = active.pid;
    window.window = WindowHandle{handle};
    if (auto name = m_desktopEntries.nameForWindow(window.windowClass, window.instanceName))
        window.applicationName = *name;
    else if (auto byClass = m_desktopEntries.nameForWindow(active.resourceClass))
        window.applicationName = *byClass;
    else
        window.applicationName = window.windowClass;
    return window;
}

bool KWinWindowTracker::isActive(WindowHandle window)
{
    const QMutexLocker lock(&m_mutex);
    return !window.isNull() && !m_active.id.isEmpty() && m_handles.value(m_active.id) == window.value;
}

void KWinWindowTracker::requestActivation(WindowHandle window)
{
    QString id;
    {
        const QMutexLocker lock(&m_mutex);
        id = m_ids.value(window.value);
    }
    if (id.isEmpty() || !m_failure.isEmpty())
        return;
    const QString name = QStringLiteral("%1-activate-%2").arg(m_trackerName).arg(++m_scriptCount);
    const QString path = writeScript(name, scriptHeader() + QStringLiteral("var wanted = %1, plugin = %2;\n")
                                                                .arg(jsString(id), jsString(name))
                                               + QLatin1String(activationBody));
    if (path.isEmpty())
        return;
    m_pendingActivations << name;
    // Calls to one service arrive in order, so the start finds the script loaded.
    m_bus.send(scriptingCall(QStringLiteral("loadScript"), {path, name}));
    m_bus.send(scriptingCall(QStringLiteral("start")));
}

} // namespace dictora::kde

#include "KWinWindowTracker.moc"
