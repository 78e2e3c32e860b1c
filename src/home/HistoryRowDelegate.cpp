#include "home/HistoryRowDelegate.h"

#include "home/HistoryListModel.h"
#include "home/Style.h"

#include <QPainter>
#include <QPainterPath>

namespace dictora {

namespace {
constexpr int kGap = 6;     // between cards
constexpr int kPadding = 14; // inside a card
QRect cardRect(const QRect &row)
{
    return row.adjusted(kPadding, kGap / 2, -kPadding, -kGap / 2);
}
} // namespace

QSize HistoryRowDelegate::sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const
{
    return QSize(option.rect.width(), kRowHeight);
}

QRect HistoryRowDelegate::copyButtonRect(const QRect &row, bool copied)
{
    const QRect card = cardRect(row);
    const int width = copied ? 84 : 32;
    return QRect(card.right() - kPadding - width + 1, card.center().y() - 16, width, 32);
}

void HistoryRowDelegate::paint(QPainter *p, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    const Style::Colors &c = Style::colors();
    const bool copied = index.data(HistoryListModel::CopiedRole).toBool();
    const bool selected = option.state & QStyle::State_Selected;
    const bool hovered = option.state & QStyle::State_MouseOver;
    const QRect card = cardRect(option.rect);

    p->save();
    p->setRenderHint(QPainter::Antialiasing);
    p->setPen(QPen(selected ? c.accent : c.border, 1));
    p->setBrush(hovered && !selected ? c.raised : c.surface);
    p->drawRoundedRect(QRectF(card).adjusted(0.5, 0.5, -0.5, -0.5), 10, 10);

    const QRect copyRect = copyButtonRect(option.rect, copied);
    const QRect content = card.adjusted(kPadding, 10, -(kPadding + copyRect.width() + 12), -10);

    // Top line: time, application, durations.
    QFont meta = option.font;
    meta.setPointSizeF(option.font.pointSizeF() * 0.9);
    QFont metaBold = meta;
    metaBold.setBold(true);
    const QFontMetrics fm(meta);
    const QFontMetrics fmBold(metaBold);
    int x = content.left();
    const int metaBaseline = content.top() + fm.ascent();
    auto drawMeta = [&](const QString &text, const QFont &font, const QColor &color) {
        if (text.isEmpty() || x >= content.right())
            return;
        p->setFont(font);
        p->setPen(color);
        const QFontMetrics m(font);
        const QString shown = m.elidedText(text, Qt::ElideRight, content.right() - x);
        p->drawText(QPoint(x, metaBaseline), shown);
        x += m.horizontalAdvance(shown) + 12;
    };
    drawMeta(index.data(HistoryListModel::SavedAtTextRole).toString(), metaBold, c.text);
    drawMeta(index.data(HistoryListModel::ApplicationRole).toString(), meta, c.secondaryText);
    drawMeta(index.data(HistoryListModel::DurationRole).toString(), meta, c.secondaryText);
    drawMeta(index.data(HistoryListModel::EarsRole).toString(), meta, c.secondaryText);

    // Badges as small pills.
    QFont badgeFont = meta;
    badgeFont.setPointSizeF(meta.pointSizeF() * 0.9);
    badgeFont.setWeight(QFont::DemiBold);
    const QFontMetrics bm(badgeFont);
    p->setFont(badgeFont);
    for (const QString &badge : index.data(HistoryListModel::BadgesRole).toStringList()) {
        const int w = bm.horizontalAdvance(badge) + 12;
        if (x + w > content.right())
            break;
        const QRect pill(x, content.top() - 1, w, fm.height() + 2);
        p->setPen(Qt::NoPen);
        p->setBrush(c.badge);
        p->drawRoundedRect(QRectF(pill), pill.height() / 2.0, pill.height() / 2.0);
        p->setPen(c.badgeText);
        p->drawText(pill, Qt::AlignCenter, badge);
        x += w + 6;
    }

    // Preview: up to two lines, elided.
    p->setFont(option.font);
    p->setPen(c.text);
    const QRect previewRect(content.left(), content.top() + fm.height() + 6, content.width(),
        content.bottom() - (content.top() + fm.height() + 6));
    const QFontMetrics pm(option.font);
    QString preview = index.data(HistoryListModel::PreviewRole).toString();
    if (preview.isEmpty()) {
        p->setPen(c.secondaryText);
        preview = QStringLiteral("(no text)");
    }
    const int lines = qMax(1, previewRect.height() / pm.lineSpacing());
    if (pm.horizontalAdvance(preview) > previewRect.width() * lines)
        preview = pm.elidedText(preview, Qt::ElideRight, previewRect.width() * lines - pm.averageCharWidth() * 4);
    p->drawText(previewRect, Qt::TextWordWrap | Qt::AlignLeft | Qt::AlignTop, preview);

    // Copy button.
    p->setPen(QPen(c.border, 1));
    p->setBrush(c.surface);
    p->drawRoundedRect(QRectF(copyRect).adjusted(0.5, 0.5, -0.5, -0.5), 7, 7);
    const int iconSide = 16;
    if (copied) {
        const QRect iconRect(copyRect.left() + 8, copyRect.center().y() - iconSide / 2, iconSide, iconSide);
        Style::symbol(Style::Symbol::checkmark).paint(p, iconRect);
        p->setFont(meta);
        p->setPen(c.accent);
        p->drawText(copyRect.adjusted(8 + iconSide + 4, 0, 0, 0), Qt::AlignVCenter | Qt::AlignLeft,
            QStringLiteral("Copied"));
    } else {
        const QRect iconRect(copyRect.center().x() - iconSide / 2 + 1, copyRect.center().y() - iconSide / 2 + 1,
            iconSide, iconSide);
        Style::symbol(Style::Symbol::copy).paint(p, iconRect);
    }
    p->restore();
}

} // namespace dictora
