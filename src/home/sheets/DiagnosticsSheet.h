#pragma once

#include "core/DiagnosticReport.h"

#include <QDialog>

#include <functional>

class QLabel;
class QPushButton;
class QVBoxLayout;

namespace dictora {

// The doctor's report in the window: one row per part of a dictation with
// what serves it, what was found and what to do. "Check Again" runs it anew.
class DiagnosticsSheet : public QDialog {
    Q_OBJECT
public:
    using Runner = std::function<void(std::function<void(const DiagnosticReport &)> done)>;

    explicit DiagnosticsSheet(Runner runner, QWidget *parent = nullptr);

    void check();
    void showReport(const DiagnosticReport &report);
    QLabel *verdict() const { return m_verdict; }

private:
    Runner m_runner;
    QVBoxLayout *m_rows;
    QLabel *m_verdict;
    QPushButton *m_again;
};

} // namespace dictora
