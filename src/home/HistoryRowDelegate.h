#pragma once

#include <QStyledItemDelegate>

namespace dictora {

// Draws one History row as a card: save time, application, durations and
// badges on top, the transcript preview below, the copy button on the right.
class HistoryRowDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    static constexpr int kRowHeight = 86;

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;

    // Where the copy button sits inside a row's rectangle.
    static QRect copyButtonRect(const QRect &row, bool copied);
};

} // namespace dictora
