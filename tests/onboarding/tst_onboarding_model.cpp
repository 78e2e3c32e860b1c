#include "onboarding/OnboardingModel.h"

#include <QtTest>

using namespace dictora;
using S = OnboardingPermissionStatus;

Q_DECLARE_METATYPE(dictora::OnboardingStage)

class OnboardingModelTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void leavesPermissions_data()
    {
        QTest::addColumn<bool>("presented");
        QTest::addColumn<int>("microphone");
        QTest::addColumn<int>("accessibility");
        QTest::addColumn<bool>("configured");
        QTest::addColumn<bool>("modelReady");
        QTest::addColumn<OnboardingStage>("expected");
        QTest::newRow("accessibility denied") << true << 2 << 1 << false << true << OnboardingStage::permissions;
        QTest::newRow("microphone undetermined") << true << 0 << 2 << true << true << OnboardingStage::permissions;
        QTest::newRow("first visit goes to placement") << true << 2 << 2 << false << false << OnboardingStage::microphonePosition;
        QTest::newRow("configured, model not ready") << true << 2 << 2 << true << false << OnboardingStage::permissions;
        QTest::newRow("configured, model ready") << true << 2 << 2 << true << true << OnboardingStage::practice;
        QTest::newRow("not presented") << false << 2 << 2 << true << true << OnboardingStage::permissions;
    }
    void leavesPermissions()
    {
        QFETCH(bool, presented);
        QFETCH(int, microphone);
        QFETCH(int, accessibility);
        QFETCH(bool, configured);
        QFETCH(bool, modelReady);
        QFETCH(OnboardingStage, expected);
        OnboardingModel model(true);
        model.setPermissions({S(microphone), S(accessibility)});
        model.setAccuracyModelReady(modelReady);
        if (configured)
            model.finishConfiguration();
        model.setStage(OnboardingStage::permissions);
        model.setPresented(presented);
        model.showPracticeWhenReady();
        QCOMPARE(model.stage(), expected);
    }

    void walkWaitsForModelThenPractises()
    {
        OnboardingModel model(true);
        model.setPermissions({S::authorized, S::authorized});
        model.showPracticeWhenReady();
        QCOMPARE(model.stage(), OnboardingStage::microphonePosition);
        model.setStage(OnboardingStage::snippets);
        model.finishConfiguration();
        QCOMPARE(model.stage(), OnboardingStage::permissions);
        model.setAccuracyModelReady(true);
        model.showPracticeWhenReady();
        QCOMPARE(model.stage(), OnboardingStage::practice);

        const QDateTime savedAt = QDateTime::currentDateTimeUtc();
        model.completePractice(QStringLiteral(" \n\t "), savedAt);
        QCOMPARE(model.stage(), OnboardingStage::practice);
        QVERIFY(!model.practiceSavedAt());
        model.completePractice(QStringLiteral("  Hello there.\n"), savedAt);
        QCOMPARE(model.stage(), OnboardingStage::savedProof);
        QCOMPARE(model.practiceTranscript(), QStringLiteral("Hello there."));
        QCOMPARE(model.practiceSavedAt(), std::optional<QDateTime>(savedAt));
    }
};

QTEST_GUILESS_MAIN(OnboardingModelTest)
#include "tst_onboarding_model.moc"
