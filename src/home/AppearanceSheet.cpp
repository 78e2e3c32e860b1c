#include "home/AppearanceSheet.h"

#include "home/Style.h"

#include <QButtonGroup>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QSlider>
#include <QVBoxLayout>

#include <cmath>

namespace dictora {

namespace {

int column(ScreenAnchor a)
{
    switch (a) {
    case ScreenAnchor::topLeft:
    case ScreenAnchor::bottomLeft:
        return 0;
    case ScreenAnchor::topMiddle:
    case ScreenAnchor::bottomMiddle:
        return 1;
    default:
        return 2;
    }
}

bool isTop(ScreenAnchor a)
{
    return a == ScreenAnchor::topLeft || a == ScreenAnchor::topMiddle || a == ScreenAnchor::topRight;
}

ScreenAnchor anchorAt(int col, bool top)
{
    static const ScreenAnchor tops[] = {ScreenAnchor::topLeft, ScreenAnchor::topMiddle, ScreenAnchor::topRight};
    static const ScreenAnchor bottoms[] = {ScreenAnchor::bottomLeft, ScreenAnchor::bottomMiddle, ScreenAnchor::bottomRight};
    col = qBound(0, col, 2);
    return top ? tops[col] : bottoms[col];
}

QLabel *sectionTitle(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    QFont f = label->font();
    f.setBold(true);
    label->setFont(f);
    return label;
}

} // namespace

ScreenAnchorPicker::ScreenAnchorPicker(QWidget *parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("anchorPicker"));
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(220, 140);
    setAccessibleName(QStringLiteral("Indicator position"));
    setCursor(Qt::PointingHandCursor);
}

void ScreenAnchorPicker::setAnchor(ScreenAnchor anchor)
{
    if (m_anchor == anchor)
        return;
    m_anchor = anchor;
    setAccessibleDescription(rawValue(anchor));
    update();
}

QRectF ScreenAnchorPicker::screenRect() const
{
    // A 16:10 screen, centred.
    const QRectF area = QRectF(rect()).adjusted(4, 4, -4, -4);
    qreal w = area.width();
    qreal h = w * 10 / 16;
    if (h > area.height()) {
        h = area.height();
        w = h * 16 / 10;
    }
    return QRectF(area.center().x() - w / 2, area.center().y() - h / 2, w, h);
}

QRectF ScreenAnchorPicker::spotRect(ScreenAnchor anchor) const
{
    const QRectF screen = screenRect();
    const qreal spotW = screen.width() * 0.2;
    const qreal spotH = screen.height() * 0.16;
    const qreal margin = screen.width() * 0.05;
    const qreal menuBar = screen.height() * 0.08;
    const int col = column(anchor);
    const qreal x = col == 0 ? screen.left() + margin
        : col == 1           ? screen.center().x() - spotW / 2
                             : screen.right() - margin - spotW;
    const qreal y = isTop(anchor) ? screen.top() + menuBar + margin : screen.bottom() - margin - spotH;
    return QRectF(x, y, spotW, spotH);
}

void ScreenAnchorPicker::paintEvent(QPaintEvent *)
{
    const Style::Colors &c = Style::colors();
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF screen = screenRect();
    p.setPen(QPen(hasFocus() ? c.accent : c.border, 1.5));
    p.setBrush(c.dark ? c.window.darker(130) : c.window.darker(106));
    p.drawRoundedRect(screen, 8, 8);
    // Menu bar strip.
    p.setPen(Qt::NoPen);
    p.setBrush(c.border);
    const QRectF bar(screen.left() + 1, screen.top() + 1, screen.width() - 2, screen.height() * 0.08);
    p.drawRoundedRect(bar, 7, 7);

    for (ScreenAnchor a : allScreenAnchors()) {
        const QRectF spot = spotRect(a);
        const bool chosen = a == m_anchor;
        p.setPen(QPen(chosen ? c.accent : c.secondaryText, chosen ? 2 : 1, chosen ? Qt::SolidLine : Qt::DashLine));
        p.setBrush(chosen ? c.accent : Qt::transparent);
        p.drawRoundedRect(spot, spot.height() / 2, spot.height() / 2);
        if (chosen) {
            // A tiny level meter, as the indicator itself shows.
            p.setPen(Qt::NoPen);
            p.setBrush(c.accentText);
            const qreal bw = spot.width() / 12;
            for (int i = 0; i < 4; ++i) {
                const qreal bh = spot.height() * (0.3 + 0.15 * ((i * 7) % 4));
                p.drawRoundedRect(QRectF(spot.center().x() - 3.5 * bw + i * 2 * bw, spot.center().y() - bh / 2, bw, bh),
                    bw / 2, bw / 2);
            }
        }
    }
}

void ScreenAnchorPicker::choose(ScreenAnchor anchor)
{
    const bool changed = anchor != m_anchor;
    setAnchor(anchor);
    if (changed)
        Q_EMIT anchorChosen(anchor);
}

void ScreenAnchorPicker::mousePressEvent(QMouseEvent *event)
{
    const QPointF at = event->position();
    // The nearest spot, so a click beside a small spot still counts.
    ScreenAnchor best = m_anchor;
    qreal bestDistance = 1e9;
    for (ScreenAnchor a : allScreenAnchors()) {
        const QPointF d = spotRect(a).center() - at;
        const qreal distance = std::hypot(d.x(), d.y());
        if (distance < bestDistance) {
            bestDistance = distance;
            best = a;
        }
    }
    if (screenRect().contains(at))
        choose(best);
}

void ScreenAnchorPicker::keyPressEvent(QKeyEvent *event)
{
    const int col = column(m_anchor);
    const bool top = isTop(m_anchor);
    switch (event->key()) {
    case Qt::Key_Left:
        choose(anchorAt(col - 1, top));
        break;
    case Qt::Key_Right:
        choose(anchorAt(col + 1, top));
        break;
    case Qt::Key_Up:
        choose(anchorAt(col, true));
        break;
    case Qt::Key_Down:
        choose(anchorAt(col, false));
        break;
    default:
        QWidget::keyPressEvent(event);
    }
}

QString AppearanceSheet::sizeTitle(OverlaySize size)
{
    switch (size) {
    case OverlaySize::small:
        return QStringLiteral("Small");
    case OverlaySize::medium:
        return QStringLiteral("Medium");
    case OverlaySize::large:
        return QStringLiteral("Large");
    }
    return {};
}

AppearanceSheet::AppearanceSheet(ProductPreferences &preferences, QWidget *parent)
    : QDialog(parent)
    , m_preferences(preferences)
    , m_picker(new ScreenAnchorPicker(this))
    , m_sizes(new QButtonGroup(this))
    , m_opacity(new QSlider(Qt::Horizontal, this))
    , m_opacityValue(new QLabel(this))
    , m_icon(new Style::ToggleSwitch(this))
    // The autostart entry keeps its first name, so switches made before the
    // app id changed still find their file.
    , m_login(preferences, QStringLiteral("dictora"), QCoreApplication::applicationFilePath())
    , m_startAtLogin(new Style::ToggleSwitch(this))
    , m_loginFailure(new QLabel(this))
{
    setObjectName(QStringLiteral("AppearanceSheet"));
    setWindowTitle(QStringLiteral("Appearance"));
    setMinimumWidth(420);

    auto *heading = new QLabel(QStringLiteral("Microphone indicator"), this);
    heading->setProperty("role", "heading");
    auto *hint = new QLabel(QStringLiteral("Changes apply to the indicator right away."), this);
    hint->setProperty("role", "secondary");

    auto *sizeRow = new QHBoxLayout;
    sizeRow->setSpacing(6);
    for (OverlaySize size : allOverlaySizes()) {
        auto *button = new QPushButton(sizeTitle(size), this);
        button->setObjectName(QStringLiteral("size_") + rawValue(size));
        button->setCheckable(true);
        button->setAutoDefault(false);
        m_sizes->addButton(button, int(size));
        sizeRow->addWidget(button);
    }
    sizeRow->addStretch(1);

    m_opacity->setObjectName(QStringLiteral("opacity"));
    m_opacity->setRange(qRound(ProductPreferences::kMinimumOpacity * 100), qRound(ProductPreferences::kMaximumOpacity * 100));
    m_opacity->setSingleStep(5);
    m_opacity->setPageStep(10);
    m_opacity->setAccessibleName(QStringLiteral("Opacity"));
    m_opacityValue->setObjectName(QStringLiteral("opacityValue"));
    m_opacityValue->setMinimumWidth(44);
    m_opacityValue->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    auto *opacityRow = new QHBoxLayout;
    opacityRow->addWidget(m_opacity, 1);
    opacityRow->addWidget(m_opacityValue);

    m_icon->setObjectName(QStringLiteral("showsIcon"));
    m_icon->setAccessibleName(QStringLiteral("Show microphone icon"));
    auto *iconRow = new QHBoxLayout;
    iconRow->addWidget(new QLabel(QStringLiteral("Show microphone icon"), this), 1);
    iconRow->addWidget(m_icon);

    m_startAtLogin->setObjectName(QStringLiteral("startAtLogin"));
    m_startAtLogin->setAccessibleName(QStringLiteral("Start at login"));
    auto *loginRow = new QHBoxLayout;
    loginRow->addWidget(new QLabel(QStringLiteral("Start at login"), this), 1);
    loginRow->addWidget(m_startAtLogin);
    m_loginFailure->setObjectName(QStringLiteral("startAtLoginFailure"));
    m_loginFailure->setWordWrap(true);
    m_loginFailure->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_loginFailure->setStyleSheet(QStringLiteral("color: %1;").arg(Style::colors().warning.name()));
    m_loginFailure->hide();

    auto *done = new QPushButton(QStringLiteral("Done"), this);
    done->setProperty("role", "primary");
    done->setDefault(true);
    connect(done, &QPushButton::clicked, this, &QDialog::accept);
    auto *buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(done);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(22, 20, 22, 18);
    layout->setSpacing(8);
    layout->addWidget(heading);
    layout->addWidget(hint);
    layout->addSpacing(6);
    layout->addWidget(sectionTitle(QStringLiteral("Position"), this));
    layout->addWidget(m_picker);
    layout->addSpacing(6);
    layout->addWidget(sectionTitle(QStringLiteral("Size"), this));
    layout->addLayout(sizeRow);
    layout->addSpacing(6);
    layout->addWidget(sectionTitle(QStringLiteral("Opacity"), this));
    layout->addLayout(opacityRow);
    layout->addSpacing(6);
    layout->addLayout(iconRow);
    layout->addSpacing(12);
    layout->addWidget(sectionTitle(QStringLiteral("General"), this));
    layout->addLayout(loginRow);
    layout->addWidget(m_loginFailure);
    layout->addStretch(1);
    layout->addLayout(buttons);

    sync();

    connect(m_picker, &ScreenAnchorPicker::anchorChosen, &m_preferences, &ProductPreferences::setMicrophoneLocation);
    connect(m_sizes, &QButtonGroup::idClicked, this, [this](int id) { m_preferences.setMicrophoneSize(OverlaySize(id)); });
    connect(m_opacity, &QSlider::valueChanged, this, [this](int v) { m_preferences.setMicrophoneOpacity(v / 100.0); });
    connect(m_icon, &QAbstractButton::toggled, &m_preferences, &ProductPreferences::setShowsMicrophoneIcon);
    connect(m_startAtLogin, &QAbstractButton::toggled, this, &AppearanceSheet::switchStartAtLogin);

    connect(&m_preferences, &ProductPreferences::microphoneLocationChanged, this, &AppearanceSheet::sync);
    connect(&m_preferences, &ProductPreferences::microphoneSizeChanged, this, &AppearanceSheet::sync);
    connect(&m_preferences, &ProductPreferences::microphoneOpacityChanged, this, &AppearanceSheet::sync);
    connect(&m_preferences, &ProductPreferences::showsMicrophoneIconChanged, this, &AppearanceSheet::sync);
    connect(&m_preferences, &ProductPreferences::startsAtLoginChanged, this, &AppearanceSheet::sync);
}

void AppearanceSheet::showEvent(QShowEvent *event)
{
    // The entry may have been added or removed elsewhere since last time.
    m_login.refresh();
    sync();
    QDialog::showEvent(event);
}

void AppearanceSheet::switchStartAtLogin(bool on)
{
    const QString failure = m_login.setEnabled(on);
    m_loginFailure->setText(failure);
    m_loginFailure->setVisible(!failure.isEmpty());
    sync();
}

QAbstractButton *AppearanceSheet::sizeButton(OverlaySize size) const
{
    return m_sizes->button(int(size));
}

void AppearanceSheet::sync()
{
    m_picker->setAnchor(m_preferences.microphoneLocation());
    if (QAbstractButton *b = sizeButton(m_preferences.microphoneSize()))
        b->setChecked(true);
    const int percent = qRound(m_preferences.microphoneOpacity() * 100);
    if (m_opacity->value() != percent) {
        const QSignalBlocker block(m_opacity);
        m_opacity->setValue(percent);
    }
    m_opacityValue->setText(QString::number(percent) + QLatin1Char('%'));
    if (m_icon->isChecked() != m_preferences.showsMicrophoneIcon()) {
        const QSignalBlocker block(m_icon);
        m_icon->setChecked(m_preferences.showsMicrophoneIcon());
        m_icon->update();
    }
    if (m_startAtLogin->isChecked() != m_preferences.startsAtLogin()) {
        const QSignalBlocker block(m_startAtLogin);
        m_startAtLogin->setChecked(m_preferences.startsAtLogin());
        m_startAtLogin->update();
    }
}

} // namespace dictora
