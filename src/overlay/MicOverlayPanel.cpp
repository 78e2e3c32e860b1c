#include "overlay/MicOverlayPanel.h"

#include "core/DictoraState.h"
#include "overlay/MicIndicatorView.h"
#include "overlay/OverlayGeometry.h"
#include "platform/OverlayWindowHints.h"

#include <QCoreApplication>
#include <QCursor>
#include <QEvent>
#include <QThread>
#include <QTimer>
#include <QGuiApplication>
#include <QLabel>
#include <QScreen>
#include <QWidget>

#include <algorithm>
#include <cmath>

namespace dictora {

MicOverlayPanel::MicOverlayPanel(DictoraState &state, ProductPreferences &preferences, OverlayWindowHints *hints,
    QObject *parent)
    : QObject(parent), m_state(state), m_preferences(preferences), m_hints(hints)
{
    m_panel = std::make_unique<QWidget>(nullptr,
        Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus
            | Qt::WindowTransparentForInput | Qt::NoDropShadowWindowHint);
    m_panel->setAttribute(Qt::WA_ShowWithoutActivating);
    m_panel->setAttribute(Qt::WA_TranslucentBackground);
    m_panel->setAttribute(Qt::WA_TransparentForMouseEvents);
    m_panel->setAttribute(Qt::WA_X11DoNotAcceptFocus);
    // It lives as long as the program and must never end it or go away.
    m_panel->setAttribute(Qt::WA_QuitOnClose, false);
    m_panel->installEventFilter(this);
    m_panel->setFocusPolicy(Qt::NoFocus);
    m_panel->setWindowTitle(QStringLiteral("Dictora microphone"));

    m_view = new MicIndicatorView(m_state, m_panel.get());
    m_view->move(0, 0);

    connect(&m_state, &DictoraState::phaseChanged, this, &MicOverlayPanel::updateAccessibleName);
    updateAccessibleName();

    // Its own window, so the indicator keeps its size and place while the text grows.
    m_preview = std::make_unique<QLabel>(nullptr, m_panel->windowFlags());
    for (Qt::WidgetAttribute attribute : {Qt::WA_ShowWithoutActivating, Qt::WA_TransparentForMouseEvents,
             Qt::WA_X11DoNotAcceptFocus, Qt::WA_TranslucentBackground})
        m_preview->setAttribute(attribute);
    m_preview->setAttribute(Qt::WA_QuitOnClose, false);
    m_preview->setFocusPolicy(Qt::NoFocus);
    m_preview->setWindowTitle(QStringLiteral("Dictora preview"));
    m_preview->setWordWrap(true);
    m_preview->setMaximumWidth(360);
    m_preview->setStyleSheet(QStringLiteral(
        "QLabel { background: rgba(24, 24, 27, 225); color: white; border-radius: 10px; padding: 6px 10px; }"));
    connect(&m_state, &DictoraState::previewTextChanged, this, &MicOverlayPanel::updatePreview);
    connect(&m_state, &DictoraState::phaseChanged, this, &MicOverlayPanel::updatePreview);
    m_noticeTimer = new QTimer(this);
    m_noticeTimer->setSingleShot(true);
    m_noticeTimer->setInterval(5000);
    connect(m_noticeTimer, &QTimer::timeout, this, [this] {
        m_notice.clear();
        updatePreview();
    });

    // Every one of the four settings re-applies all four, like a combine-latest.
    connect(&m_preferences, &ProductPreferences::microphoneSizeChanged, this, &MicOverlayPanel::applyPreferences);
    connect(&m_preferences, &ProductPreferences::microphoneLocationChanged, this, &MicOverlayPanel::applyPreferences);
    connect(&m_preferences, &ProductPreferences::showsMicrophoneIconChanged, this, &MicOverlayPanel::applyPreferences);
    connect(&m_preferences, &ProductPreferences::microphoneOpacityChanged, this, &MicOverlayPanel::applyPreferences);
    applyPreferences();
}

MicOverlayPanel::~MicOverlayPanel() = default;

bool MicOverlayPanel::eventFilter(QObject *watched, QEvent *event)
{
    // A window manager's close request would otherwise hide it for good.
    if (watched == m_panel.get() && event->type() == QEvent::Close) {
        event->ignore();
        return true;
    }
    return QObject::eventFilter(watched, event);
}

void MicOverlayPanel::applyPreferences()
{
    updateContent(m_preferences.microphoneSize(), m_preferences.showsMicrophoneIcon(),
        m_preferences.microphoneOpacity());
    reposition(m_preferences.microphoneLocation());
}

void MicOverlayPanel::updateContent(OverlaySize size, bool showsMicrophoneIcon, double opacity)
{
    const QSize windowSize = overlay::overlayWindowSize(size, showsMicrophoneIcon);
    m_view->configure(size, showsMicrophoneIcon, opacity);
    m_view->setGeometry(QRect(QPoint(0, 0), windowSize));
    m_panel->setFixedSize(windowSize);
}

void MicOverlayPanel::reposition(ScreenAnchor anchor)
{
    Q_ASSERT_X(QThread::currentThread() == thread(), "MicOverlayPanel::reposition", "main thread only");
    const QList<QScreen *> screens = QGuiApplication::screens();
    QList<QRect> geometries;
    for (QScreen *screen : screens)
        geometries.append(screen->geometry());
    // Asking where the pointer is costs a round trip to the display server,
    // and with one screen there is nothing to choose.
    const int index = screens.size() == 1 ? 0 : overlay::screenIndexAt(geometries, QCursor::pos());
    QScreen *screen = index >= 0 ? screens.at(index) : QGuiApplication::primaryScreen();
    if (!screen)
        return;

    const QPointF topLeft = overlay::anchoredTopLeft(anchor, QRectF(screen->availableGeometry()),
        QSizeF(m_panel->size()));
    // Floor keeps the right and bottom margins at least 8 pixels.
    const QPoint origin(int(std::floor(topLeft.x())), int(std::floor(topLeft.y())));
    m_panel->move(origin);
}

void MicOverlayPanel::show()
{
    Q_ASSERT_X(QThread::currentThread() == thread(), "MicOverlayPanel::show", "main thread only");
    if (!m_desktopHintsApplied) {
        // Needs the native window, and must happen before the first map.
        m_desktopHintsApplied = true;
        if (m_hints)
            m_hints->apply(quintptr(m_panel->winId()));
    }
    m_panel->show();
    m_panel->raise();
}

void MicOverlayPanel::showNotice(const QString &text)
{
    m_notice = text;
    m_noticeTimer->start();
    updatePreview();
}

void MicOverlayPanel::updatePreview()
{
    const QString text = m_notice.isEmpty() ? m_state.previewText().simplified() : m_notice;
    if (text.isEmpty() || !m_state.phase().is(DictoraPhase::Kind::recording) || !m_panel->isVisible()) {
        m_preview->hide();
        return;
    }
    // The latest words matter: a long preview keeps its end.
    constexpr qsizetype kShownCharacters = 160;
    m_preview->setText(text.size() > kShownCharacters ? QStringLiteral("…") + text.right(kShownCharacters) : text);
    m_preview->adjustSize();
    // Beside the indicator, on whichever side the screen has room.
    const QRect indicator = m_panel->frameGeometry();
    const QScreen *screen = m_panel->screen();
    const QRect room = screen ? screen->availableGeometry() : indicator;
    const QSize size = m_preview->size();
    int x = indicator.right() + 8;
    if (x + size.width() > room.right())
        x = indicator.left() - 8 - size.width();
    const int y = std::clamp(indicator.center().y() - size.height() / 2, room.top(), std::max(room.top(), room.bottom() - size.height()));
    m_preview->move(std::max(x, room.left()), y);
    if (!m_preview->isVisible()) {
        if (m_hints)
            m_hints->apply(quintptr(m_preview->winId()));
        m_preview->show();
    }
    m_preview->raise();
}

void MicOverlayPanel::updateAccessibleName()
{
    m_panel->setAccessibleName(m_state.phase().label());
}

} // namespace dictora
