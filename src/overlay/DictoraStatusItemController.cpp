#include "overlay/DictoraStatusItemController.h"

#include "overlay/MicrophoneGlyph.h"

#include <QAction>
#include <QApplication>
#include <QCursor>
#include <QEvent>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QThread>

namespace dictora {

DictoraStatusItemController::DictoraStatusItemController(Actions actions, QObject *parent)
    : QObject(parent), m_actions(std::move(actions)), m_menu(std::make_unique<QMenu>())
{
    m_menu->setAccessibleName(QString::fromLatin1(kToolTip));
    QAction *open = m_menu->addAction(QStringLiteral("Open App"));
    QAction *pasteLast = nullptr;
    if (m_actions.pasteLastDictation) {
        pasteLast = m_menu->addAction(QStringLiteral("Paste Last Dictation"));
        connect(pasteLast, &QAction::triggered, this, [this] { m_actions.pasteLastDictation(); });
    }
    QAction *quit = m_menu->addAction(QStringLiteral("Quit App"));
    for (QAction *action : m_menu->actions()) {
        action->setEnabled(true);
        action->setShortcut({});
        action->setIconVisibleInMenu(false);
    }
    connect(open, &QAction::triggered, this, &DictoraStatusItemController::openApplication);
    connect(quit, &QAction::triggered, this, &DictoraStatusItemController::quitApplication);
}

DictoraStatusItemController::~DictoraStatusItemController()
{
    // The tray icon refers to the menu; drop it first.
    delete m_statusItem;
    m_statusItem = nullptr;
}

bool DictoraStatusItemController::install()
{
    Q_ASSERT_X(QThread::currentThread() == thread(), "DictoraStatusItemController::install", "main thread only");
    if (m_statusItem)
        return true;
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        return false;

    m_statusItem = new QSystemTrayIcon(this);
    refreshIcon();
    m_statusItem->setToolTip(QString::fromLatin1(kToolTip));
    m_statusItem->setContextMenu(m_menu.get());
    // A plain click opens the menu too, never the window.
    connect(m_statusItem, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
            m_menu->popup(QCursor::pos());
    });
    // The menu hears of every application palette change, such as the
    // desktop switching between light and dark panels.
    m_menu->installEventFilter(this);
    m_statusItem->show();
    return true;
}

bool DictoraStatusItemController::showNotice(const QString &title, const QString &message)
{
    if (!m_statusItem || !QSystemTrayIcon::supportsMessages())
        return false;
    m_statusItem->showMessage(title, message, QSystemTrayIcon::Information);
    return true;
}

void DictoraStatusItemController::refreshIcon()
{
    if (!m_statusItem)
        return;
    m_darkPanelIcon = overlay::isDarkPanel(QApplication::palette());
    m_statusItem->setIcon(overlay::trayIcon(m_darkPanelIcon));
}

bool DictoraStatusItemController::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_menu.get() && event->type() == QEvent::PaletteChange)
        refreshIcon();
    return QObject::eventFilter(watched, event);
}

void DictoraStatusItemController::openApplication()
{
    if (m_actions.openApplication)
        m_actions.openApplication();
}

void DictoraStatusItemController::quitApplication()
{
    if (m_actions.quitApplication)
        m_actions.quitApplication();
    else
        QCoreApplication::quit();
}

} // namespace dictora
