#pragma once

#include <QObject>

#include <functional>
#include <memory>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace dictora {

// The tray microphone with its menu. The shell hands in what "Open App",
// "Paste Last Dictation" and "Quit App" do, so this library never sees the
// controller.
class DictoraStatusItemController : public QObject {
    Q_OBJECT

public:
    struct Actions {
        std::function<void()> openApplication;
        // Left empty, quitting asks the application to quit normally.
        std::function<void()> quitApplication;
        // Left empty, the menu has no such entry.
        std::function<void()> pasteLastDictation = {};
    };

    explicit DictoraStatusItemController(Actions actions, QObject *parent = nullptr);
    ~DictoraStatusItemController() override;

    // Puts the icon in the tray once; later calls keep the existing one.
    // False when the desktop has no tray (nothing is shown then).
    bool install();
    bool isInstalled() const { return m_statusItem != nullptr; }

    // A balloon from the icon where the tray shows them; false where it cannot.
    bool showNotice(const QString &title, const QString &message);

    QMenu *menu() const { return m_menu.get(); }
    QSystemTrayIcon *statusItem() const { return m_statusItem; }
    // Whether the icon currently drawn is the one for dark panels.
    bool usesDarkPanelIcon() const { return m_darkPanelIcon; }

    static constexpr auto kToolTip = "Dictora microphone";

public Q_SLOTS:
    void openApplication();
    void quitApplication();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void refreshIcon();

    Actions m_actions;
    std::unique_ptr<QMenu> m_menu;
    QSystemTrayIcon *m_statusItem = nullptr;
    bool m_darkPanelIcon = false;
};

} // namespace dictora
