#pragma once

#include "history/TranscriptRecord.h"
#include "home/AppearanceSheet.h"

#include <QPointer>
#include <QWidget>

#include <optional>

class QLabel;
class QProgressBar;
class QPushButton;
class QStackedWidget;
class QFrame;

namespace dictora {


class DictoraState;
class HistoryStore;
class HistoryView;
class ProductPreferences;

// The main window ("Dictora.MainWindow"): a header with the shortcut and the
// phase, a banner while the speech model is prepared, the buttons for the
// settings sheets, and the History. It observes; it never drives a dictation.
// Closing only hides it; the History store and its search stay.
class HomeWindow : public QWidget {
    Q_OBJECT
public:
    HomeWindow(DictoraState &state, ProductPreferences &preferences, HistoryStore &history,
        QWidget *parent = nullptr);

    static constexpr auto kIdentifier = "Dictora.MainWindow";
    static QSize contentSize(bool onboarding);
    static QSize minimumContentSize(bool onboarding);

    // Shows, raises and reloads the History.
    void present();
    // Reloads the History only while the window is on screen.
    void refreshIfVisible();

    // The model banner: `text` with an optional 0…1 progress; "RETRY DOWNLOAD"
    // appears when the preparation needs the user. Empty text hides it.
    void setModelPreparation(const QString &text, std::optional<double> progress = std::nullopt,
        bool needsAttention = false);

    // Onboarding takes the place of the home content and a taller window.
    void setOnboardingView(QWidget *view);
    void setOnboardingPresented(bool presented);

    HistoryView *historyView() const { return m_historyView; }
    AppearanceSheet *appearanceSheet() const { return m_appearance; }

public Q_SLOTS:
    void openAppearanceSheet();

Q_SIGNALS:
    void retryDownloadRequested();
    void shortcutSheetRequested();
    void snippetsSheetRequested();
    void diagnosticsSheetRequested();
    void recognitionSheetRequested();
    void pasteRecordRequested(const dictora::TranscriptRecord &record);

private:
    void updateHeader();
    void applyWindowSize();

    DictoraState &m_state;
    ProductPreferences &m_preferences;
    HistoryStore &m_history;
    QStackedWidget *m_pages;
    QLabel *m_shortcut;
    QLabel *m_phase;
    QFrame *m_banner;
    QLabel *m_bannerText;
    QProgressBar *m_bannerProgress;
    QLabel *m_bannerPercent;
    QPushButton *m_retry;
    HistoryView *m_historyView;
    QPointer<QWidget> m_onboardingView;
    QPointer<AppearanceSheet> m_appearance;
    bool m_onboarding = false;
    bool m_placed = false;
};

} // namespace dictora
