// The Analyze workflow: the set-up screens, the analysis dialog with a
// scripted fingerprint at the match seam, and a full run on the real engine.
#include "analyzedlg.h"
#include "choosepathanalyze.h"
#include "englishtexts.h"
#include "fingerprintinfo.h"
#include "gallerywidget.h"
#include "galleryfiltermodel.h"
#include "imagemodel.h"
#include "intropagedlg.h"
#include "mainwindow.h"
#include "multiplethreadanalyzer.h"
#include "resources.h"
#include "resultclass.h"
#include "settings.h"

#include "camsim/camera.h"
#include "qcontrols/dialogscript.h"
#include "qcontrols/navigationbutton.h"
#include "qcontrols/stylesheetmanager.h"
#include "qutils/appsettings.h"
#include "qutils/htmltopdftask.h"
#include "testutils.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QComboBox>
#include <QCoreApplication>
#include <QDialog>
#include <QFile>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSemaphore>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <numeric>

using qcontrols::CDialogScript;
using qcontrols::CScriptedDialogs;
using qutils::CQuorvexAPI;
using Result = CQuorvexAPI::SAnalysisResult;

namespace
{

// Answers by file name; a gate can hold every match until the test releases it.
class CStubFingerprint : public CFingerprint
{
public:
    QHash<QString, Result> answers;
    QSemaphore* gate = nullptr;

    Result match(const QFileInfo& photo, bool) const override
    {
        if (gate)
            gate->acquire();
        return answers.value(photo.fileName(), Result{false, 0.0, 0.0, CQuorvexAPI::Success, 0.0});
    }
};

class AnalyzeTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        qutils::CAppSettings::setConfigFolder(m_config.path());
        CSettings::setCurrentFingerprint(QFileInfo());
        CSettings::setLastAnalyzePath(QDir(m_photos.path()));
        CAnalyzeDlg::setStartDelay(0);
        QCoreApplication::installTranslator(&m_english);
    }
    void TearDown() override
    {
        CAnalyzeDlg::setStartDelay(500);
        QCoreApplication::removeTranslator(&m_english);
        qutils::CAppSettings::setConfigFolder(QString());
    }

    QFileInfoList namedFiles(const QStringList& names)
    {
        QFileInfoList files;
        for (const QString& name : names)
        {
            QFile file(m_photos.filePath(name));
            EXPECT_TRUE(file.open(QIODevice::WriteOnly));
            files << QFileInfo(file.fileName());
        }
        return files;
    }

    static camsim::Camera camera(uint64_t unit, int width = 1024, int height = 768)
    {
        camsim::CameraConfig config;
        config.width = width;
        config.height = height;
        config.unitSeed = unit;
        return camsim::Camera(config);
    }

    static QString shoot(const camsim::Camera& camera, int scene, const QString& path)
    {
        camsim::ShotConfig shot;
        shot.sceneSeed = static_cast<uint64_t>(scene);
        shot.scene = scene % 2 ? camsim::SceneKind::Natural : camsim::SceneKind::Gradient;
        camera.shoot(shot, path.toStdString());
        return path;
    }

    // A real fingerprint of camera unit 1 from five photos.
    QString learnFingerprint()
    {
        QTemporaryDir references;
        QFileInfoList photos;
        const camsim::Camera unit = camera(1);
        for (int i = 0; i < 5; ++i)
            photos << QFileInfo(shoot(unit, 100 + i, references.filePath(QStringLiteral("r%1.jpg").arg(i))));
        const QString path = m_out.filePath(QStringLiteral("unit1.fnp"));
        EXPECT_EQ(CFingerprint::createFingerprint(photos, QFileInfo(path), nullptr), CQuorvexAPI::Success);
        return path;
    }

    static QStringList comboTexts(const QComboBox* combo)
    {
        QStringList texts;
        for (int i = 0; i < combo->count(); ++i)
            texts << combo->itemText(i);
        return texts;
    }

    CEnglishTexts m_english;
    QTemporaryDir m_config;
    QTemporaryDir m_photos;
    QTemporaryDir m_out;
};

template <typename T> T* button(QWidget* page, const char* name)
{
    return page->findChild<T*>(QString::fromLatin1(name));
}

} // namespace

TEST_F(AnalyzeTest, SetUpScreensCheckTheFingerprintBeforeTheFolder)
{
    const QString fingerprint = learnFingerprint();
    CMainWindow window(1.0);
    auto* page = new CChoosePathAnalyze;
    window.pushPage(page);
    EXPECT_EQ(page->findChild<QLabel*>(QStringLiteral("titleLabel"))->text(),
              QStringLiteral("Choose folder with photos to analyze"));
    ASSERT_TRUE(page->files().isEmpty());
    auto* next = button<QPushButton>(page, "btnNavigateNext");
    ASSERT_TRUE(next);

    // Cancelling the fingerprint dialog does nothing at all.
    const QFileInfo before = CSettings::lastRecognizer();
    {
        CScriptedDialogs script({{QDialog::Rejected, {}}});
        next->click();
        ASSERT_EQ(CDialogScript::shown().size(), 1);
        EXPECT_EQ(CDialogScript::shown().at(0).kind, QStringLiteral("open"));
        EXPECT_EQ(CDialogScript::shown().at(0).title, QStringLiteral("Select fingerprint file"));
        EXPECT_TRUE(CDialogScript::shown().at(0).text.endsWith(QStringLiteral("|Fingerprint Files (*.fnp)")));
    }
    EXPECT_EQ(CSettings::lastRecognizer(), before);

    // Not a fingerprint: refused, yet remembered.
    const QString bogus = m_out.filePath(QStringLiteral("bogus.fnp"));
    {
        QFile file(bogus);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("not a fingerprint");
    }
    {
        CScriptedDialogs script({{QDialog::Accepted, bogus}, {QMessageBox::Ok, {}}});
        next->click();
        ASSERT_EQ(CDialogScript::shown().size(), 2);
        EXPECT_EQ(CDialogScript::shown().at(1).text,
                  QStringLiteral("Fingerprint file cannot be loaded.\nbogus.fnp cannot be used as a fingerprint: "
                                 "it is not a fingerprint file, or one in a format this version cannot read."));
    }
    EXPECT_EQ(CSettings::lastRecognizer().absoluteFilePath(), QFileInfo(bogus).absoluteFilePath());

    // A good fingerprint and an empty folder: the fingerprint is asked first.
    {
        CScriptedDialogs script({{QDialog::Accepted, fingerprint}, {QMessageBox::Ok, {}}});
        next->click();
        ASSERT_EQ(CDialogScript::shown().size(), 2);
        EXPECT_EQ(CDialogScript::shown().at(0).kind, QStringLiteral("open"));
        EXPECT_EQ(CDialogScript::shown().at(1).title, QStringLiteral("Error"));
        EXPECT_EQ(CDialogScript::shown().at(1).text, QStringLiteral("Folder does not contain any images."));
    }
    EXPECT_EQ(window.currentPage(), page);

    // With photos, the properties screen follows, options unchecked.
    namedFiles({QStringLiteral("q1.jpg"), QStringLiteral("q2.jpg")});
    page->listFolder(QDir(m_photos.path()), false);
    {
        CScriptedDialogs script({{QDialog::Accepted, fingerprint}});
        next->click();
    }
    auto* info = qobject_cast<CFingerprintInfoScr*>(window.currentPage());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->fingerprintInfo()->valueText(CFingerprint::TrainingImagesCount), QStringLiteral("5"));
    const QList<QCheckBox*> boxes = info->findChildren<QCheckBox*>(QStringLiteral("fingerprintSettings"));
    ASSERT_EQ(boxes.size(), 2);
    EXPECT_EQ(boxes.at(0)->text(), QStringLiteral("Skip photos from different camera (EXIF)"));
    EXPECT_EQ(boxes.at(1)->text(), QStringLiteral("Automatically generate PDF report"));
    EXPECT_FALSE(boxes.at(0)->isChecked());
    EXPECT_FALSE(boxes.at(1)->isChecked());
    ASSERT_TRUE(button<QPushButton>(info, "changePathBtn"));

    // An automatic report whose save dialog is cancelled starts nothing.
    boxes.at(1)->setChecked(true);
    {
        CScriptedDialogs script({{QDialog::Rejected, {}}});
        button<QPushButton>(info, "btnNavigateNext")->click();
        ASSERT_EQ(CDialogScript::shown().size(), 1);
        EXPECT_EQ(CDialogScript::shown().at(0).title, QStringLiteral("Choose destination for report"));
    }
    EXPECT_EQ(window.currentPage(), info);

    // Back returns to the folder page; a fresh visit has the boxes unchecked
    // again, and the report's case details as they were left.
    info->findChild<QLineEdit*>(QStringLiteral("reportCaseNumber"))->setText(QStringLiteral("2026/17"));
    button<QPushButton>(info, "btnNavigateBackLeft")->click();
    EXPECT_EQ(window.currentPage(), page);
    {
        CScriptedDialogs script({{QDialog::Accepted, fingerprint}});
        next->click();
    }
    auto* again = qobject_cast<CFingerprintInfoScr*>(window.currentPage());
    ASSERT_TRUE(again);
    for (QCheckBox* box : again->findChildren<QCheckBox*>(QStringLiteral("fingerprintSettings")))
        EXPECT_FALSE(box->isChecked());
    EXPECT_EQ(again->findChild<QLineEdit*>(QStringLiteral("reportCaseNumber"))->text(), QStringLiteral("2026/17"));
}

TEST_F(AnalyzeTest, ClassesCountersAndFilterTexts)
{
    const QFileInfoList files =
        namedFiles({QStringLiteral("vh.jpg"), QStringLiteral("h.jpg"), QStringLiteral("m.jpg"), QStringLiteral("l.jpg"),
                    QStringLiteral("none.jpg"), QStringLiteral("broken.jpg"), QStringLiteral("odd.jpg"),
                    QStringLiteral("big.jpg"), QStringLiteral("exif.jpg")});
    auto stub = std::make_shared<CStubFingerprint>();
    stub->answers = {
        {QStringLiteral("vh.jpg"), Result{true, 0.999, 0.05, CQuorvexAPI::Success, 900}},
        {QStringLiteral("h.jpg"), Result{true, 0.995, 0.04, CQuorvexAPI::Success, 300}},
        {QStringLiteral("m.jpg"), Result{true, 0.99, 0.03, CQuorvexAPI::Success, 100}},
        {QStringLiteral("l.jpg"), Result{true, 0.9899, 0.02, CQuorvexAPI::Success, 70}},
        {QStringLiteral("none.jpg"), Result{false, 0.0, 0.001, CQuorvexAPI::Success, 3}},
        {QStringLiteral("broken.jpg"), Result{false, 0.0, 0.0, CQuorvexAPI::BrokenImage, 0}},
        // An error status on a "matched" record: shown as the error, but the
        // not-found counter goes by matched alone, so no counter moves.
        {QStringLiteral("odd.jpg"), Result{true, 0.5, 0.0, CQuorvexAPI::AnalysisFailed, 0}},
        // Never compared: counted apart, never with the photos of no match.
        {QStringLiteral("big.jpg"), Result{false, 0.0, 0.0, CQuorvexAPI::ImageFingerprintInconsistentSize, 0,
                                           QStringLiteral("too <big>")}},
        {QStringLiteral("exif.jpg"), Result{false, 0.0, 0.0, CQuorvexAPI::InconsistentMetadata, 0,
                                            QStringLiteral("the photo was taken with X Y")}},
    };

    CScriptedDialogs script({{QMessageBox::Ok, {}}});
    CAnalyzeDlg dialog(files, QString(), false, nullptr, stub);
    EXPECT_EQ(dialog.findChild<QLabel*>(QStringLiteral("titleLabel"))->text(), QStringLiteral("Analyzing selected photos"));
    EXPECT_FALSE(button<QPushButton>(&dialog, "btnNavigateSaveReport")->isVisibleTo(&dialog));
    EXPECT_FALSE(button<QPushButton>(&dialog, "btnNavigateHome")->isVisibleTo(&dialog));
    ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));

    EXPECT_EQ(dialog.counters(), (QVector<int>{1, 1, 1, 1, 2, 2}));
    EXPECT_EQ(comboTexts(dialog.filterCombo()),
              (QStringList{QStringLiteral("All (9)"), QStringLiteral("Very high probability (1)"),
                           QStringLiteral("High probability (1)"), QStringLiteral("Medium probability (1)"),
                           QStringLiteral("Low probability (1)"), QStringLiteral("Fingerprint not found (2)"),
                           QStringLiteral("Not processed (1)"), QStringLiteral("Not compared (2)")}));
    EXPECT_EQ(dialog.filterCombo()->itemData(0).toInt(), 0xFFFF);
    EXPECT_EQ(dialog.filterCombo()->itemData(6).toInt(), -497 - 512) << "not compared is processed";
    EXPECT_EQ(dialog.filterCombo()->itemData(7).toInt(), 512);

    CImageModel* model = dialog.gallery()->imageModel();
    auto state = [&](int row) { return CGalleryFilterModel::stateValue(model->index(row).data(CImageModel::ItemStateRole)); };
    auto text = [&](int row) { return model->index(row).data(CImageModel::DescriptionRole).toString(); };
    EXPECT_EQ(state(0), CImageModel::SuccessVeryHigh);
    EXPECT_EQ(state(1), CImageModel::SuccessHigh);
    EXPECT_EQ(state(2), CImageModel::SuccessMedium);
    EXPECT_EQ(state(3), CImageModel::SuccessLow);
    EXPECT_EQ(state(4), CImageModel::Fail);
    EXPECT_EQ(state(5), CImageModel::Fail);
    EXPECT_EQ(state(6), CImageModel::Fail);
    EXPECT_EQ(state(7), CImageModel::NotCompared);
    EXPECT_EQ(state(8), CImageModel::NotCompared);
    EXPECT_EQ(text(0), QStringLiteral("<b>Match: very high probability</b>"));
    EXPECT_EQ(text(3), QStringLiteral("<b>Match: low probability</b>"));
    EXPECT_EQ(text(4), QStringLiteral("<b>No match</b>"));
    EXPECT_EQ(text(5), QStringLiteral("<b>%1</b>").arg(CQuorvexAPI::statusText(CQuorvexAPI::BrokenImage)));
    EXPECT_EQ(text(6), QStringLiteral("<b>%1</b>").arg(CQuorvexAPI::statusText(CQuorvexAPI::AnalysisFailed)));
    EXPECT_EQ(text(7), QStringLiteral("<b>Not compared: Size is incompatible with fingerprint</b><br />too &lt;big&gt;"));
    EXPECT_EQ(text(8), QStringLiteral("<b>Not compared: Different camera type</b><br />the photo was taken with X Y"));

    // The end: summary box, title, buttons.
    ASSERT_EQ(CDialogScript::shown().size(), 1);
    EXPECT_EQ(CDialogScript::shown().at(0).title, QStringLiteral("Analysis finished"));
    EXPECT_TRUE(dialog.summary().startsWith(QStringLiteral("Photos analyzed: 9/9<br>Fingerprints found: 4<br>"
                                                           "Fingerprints not found: 2<br>Not compared: 2<br>"
                                                           "Time elapsed: ")));
    EXPECT_TRUE(dialog.summary().contains(QStringLiteral("&nbsp;s<br>Average time per image: ")));
    EXPECT_EQ(dialog.findChild<QLabel*>(QStringLiteral("titleLabel"))->text(), QStringLiteral("Analysis finished"));
    EXPECT_TRUE(button<QPushButton>(&dialog, "btnNavigateSaveReport")->isVisibleTo(&dialog));
    EXPECT_FALSE(button<QPushButton>(&dialog, "btnNavigateCancel")->isVisibleTo(&dialog));

    // Filters: the gallery and the report button follow.
    auto* save = dialog.findChild<qcontrols::CNavigationButton*>(QStringLiteral("btnNavigateSaveReport"));
    ASSERT_TRUE(save);
    EXPECT_EQ(save->description(), QStringLiteral("All 8 processed photos selected for report"));
    dialog.filterCombo()->setCurrentIndex(CAnalyzeDlg::FilterVeryHigh);
    EXPECT_EQ(dialog.gallery()->model()->rowCount(), 1);
    EXPECT_EQ(save->description(), QStringLiteral("1 photo selected for report"));
    dialog.filterCombo()->setCurrentIndex(CAnalyzeDlg::FilterNotFound);
    EXPECT_EQ(dialog.gallery()->model()->rowCount(), 3) << "every photo in state Fail";
    dialog.filterCombo()->setCurrentIndex(CAnalyzeDlg::FilterNotCompared);
    EXPECT_EQ(dialog.gallery()->model()->rowCount(), 2);
    EXPECT_EQ(save->description(), QStringLiteral("2 photos selected for report"));
    dialog.filterCombo()->setCurrentIndex(CAnalyzeDlg::FilterNotProcessed);
    EXPECT_EQ(dialog.gallery()->model()->rowCount(), 0);
    EXPECT_EQ(save->description(), QStringLiteral("No processed photos selected for report"));

    // "Not processed" never makes a report.
    {
        CScriptedDialogs refuse({{QMessageBox::Ok, {}}});
        save->click();
        ASSERT_EQ(CDialogScript::shown().size(), 1);
        EXPECT_EQ(CDialogScript::shown().at(0).text, QStringLiteral("No photos in selection"));
    }
}

TEST_F(AnalyzeTest, EnglishPluralsAndWording)
{
    const struct
    {
        const char* source;
        int n;
        const char* english;
    } cases[] = {
        {"%n photo(s) selected for report", 0, "0 photos selected for report"},
        {"%n photo(s) selected for report", 1, "1 photo selected for report"},
        {"%n photo(s) selected for report", 21, "21 photos selected for report"},
        {"All %n photo(s) selected", 1, "The 1 photo selected"},
        {"All %n photo(s) selected", 2, "All 2 photos selected"},
        {"All %n processed photo(s) selected for report", 1, "The 1 processed photo selected for report"},
        {"All %n processed photo(s) selected for report", 3, "All 3 processed photos selected for report"},
        {"Do you really want to cancel the current analyze?", -1, "Do you really want to cancel the current analysis?"},
        // Texts without an English entry stay as written.
        {"Generate Report", -1, "Generate Report"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(QCoreApplication::translate("CAnalyzeDlg", c.source, nullptr, c.n), QString::fromUtf8(c.english))
            << c.source << " " << c.n;
}

TEST_F(AnalyzeTest, RemainingTimeAndProgressLine)
{
    EXPECT_EQ(remainingTimeText(-1), QStringLiteral("unknown"));
    EXPECT_EQ(remainingTimeText(0), QStringLiteral("0h 0m 00s"));
    EXPECT_EQ(remainingTimeText(247000), QStringLiteral("0h 4m 07s"));
    EXPECT_EQ(remainingTimeText(86399999), QStringLiteral("23h 59m 59s"));
    EXPECT_EQ(remainingTimeText(90061000), QStringLiteral("1d 1h 1m 01s"));
    EXPECT_EQ(CAnalyzeDlg::remainingMilliseconds(1000, 1, 4), 3000);
    EXPECT_EQ(CAnalyzeDlg::remainingMilliseconds(1000, 0, 4), 3000) << "processed counts as at least 1";
    EXPECT_EQ(CAnalyzeDlg::remainingMilliseconds(1000, 4, 4), 0);

    // Before the first photo: every counter 0 and the whole list not processed.
    auto stub = std::make_shared<CStubFingerprint>();
    QSemaphore gate;
    stub->gate = &gate;
    const QFileInfoList files = namedFiles({QStringLiteral("a.jpg"), QStringLiteral("b.jpg")});
    CScriptedDialogs script({{QMessageBox::Ok, {}}});
    CAnalyzeDlg dialog(files, QString(), false, nullptr, stub);
    const QString line = dialog.findChild<QLabel*>(QStringLiteral("progressLabel"))->text();
    EXPECT_TRUE(line.startsWith(QStringLiteral("Processed 0 of 2 (0.00 %) (remaining time: "))) << line.toStdString();
    EXPECT_EQ(dialog.filterCombo()->itemText(6), QStringLiteral("Not processed (2)"));
    gate.release(2);
    ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));
}

TEST_F(AnalyzeTest, CancelQuestionKeepsTheRunOnNoAndStopsItOnYes)
{
    auto stub = std::make_shared<CStubFingerprint>();
    QSemaphore gate;
    stub->gate = &gate;
    QStringList names;
    for (int i = 0; i < 12; ++i)
        names << QStringLiteral("p%1.jpg").arg(i);
    const QFileInfoList files = namedFiles(names);

    {
        CScriptedDialogs script({{QMessageBox::No, {}}, {QMessageBox::Ok, {}}});
        CAnalyzeDlg dialog(files, QString(), false, nullptr, stub);
        ASSERT_TRUE(testutils::waitFor([&] { return dialog.gallery()->imageModel()->index(0).data(CImageModel::ItemStateRole).value<CImageModel::State>() == CImageModel::Processing; }));
        button<QPushButton>(&dialog, "btnNavigateCancel")->click();
        ASSERT_GE(CDialogScript::shown().size(), 1);
        EXPECT_EQ(CDialogScript::shown().at(0).title, QStringLiteral("Cancel"));
        EXPECT_EQ(CDialogScript::shown().at(0).text, QStringLiteral("Do you really want to cancel the current analysis?"));
        EXPECT_FALSE(dialog.analyzer()->isCancelled());
        gate.release(12);
        ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));
        EXPECT_EQ(dialog.analyzer()->analyzedCount(), 12);
        EXPECT_EQ(CDialogScript::shown().last().title, QStringLiteral("Analysis finished"));
    }
    {
        CScriptedDialogs script({{QMessageBox::Yes, {}}, {QMessageBox::Ok, {}}});
        CAnalyzeDlg dialog(files, QString(), false, nullptr, stub);
        ASSERT_TRUE(testutils::waitFor([&] { return dialog.gallery()->imageModel()->index(0).data(CImageModel::ItemStateRole).value<CImageModel::State>() == CImageModel::Processing; }));
        button<QPushButton>(&dialog, "btnNavigateCancel")->click();
        EXPECT_TRUE(dialog.analyzer()->isCancelled());
        EXPECT_FALSE(dialog.isFinished()) << "cancelling is a request; the photos being matched finish";
        gate.release(12);
        ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));
        EXPECT_LT(dialog.analyzer()->analyzedCount(), 12);
        EXPECT_EQ(CDialogScript::shown().last().title, QStringLiteral("Analysis cancelled"));
        EXPECT_EQ(dialog.findChild<QLabel*>(QStringLiteral("titleLabel"))->text(), QStringLiteral("Analysis cancelled"));
        // Photos never started stay "not processed".
        const QVector<int> counters = dialog.counters();
        const int processed = std::accumulate(counters.begin(), counters.end(), 0);
        EXPECT_EQ(dialog.filterCombo()->itemText(6), QStringLiteral("Not processed (%1)").arg(12 - processed));
    }
    // Ends of a cancel: "yes" after the last photo was taken stops nothing, so
    // the run is finished; before the first photo, no average is divided out.
    struct SCase
    {
        int photos;
        bool holdFirst;
        QString title;
        QString summary;
    };
    for (const SCase& c : {SCase{1, true, QStringLiteral("Analysis finished"), QStringLiteral("Photos analyzed: 1/1<br>")},
                           SCase{3, false, QStringLiteral("Analysis cancelled"), QStringLiteral("Photos analyzed: 0/3<br>")}})
    {
        gate.tryAcquire(gate.available()); // permits left by the runs above
        CScriptedDialogs script({{QMessageBox::Yes, {}}, {QMessageBox::Ok, {}}});
        CAnalyzeDlg dialog(files.mid(0, c.photos), QString(), false, nullptr, stub);
        if (c.holdFirst)
        {
            ASSERT_TRUE(testutils::waitFor([&] { return dialog.gallery()->imageModel()->index(0).data(CImageModel::ItemStateRole).value<CImageModel::State>() == CImageModel::Processing; }));
        }
        button<QPushButton>(&dialog, "btnNavigateCancel")->click();
        gate.release(c.photos);
        ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));
        EXPECT_EQ(CDialogScript::shown().last().title, c.title);
        EXPECT_EQ(dialog.findChild<QLabel*>(QStringLiteral("titleLabel"))->text(), c.title);
        EXPECT_EQ(dialog.wasCancelled(), c.holdFirst == false);
        EXPECT_TRUE(dialog.summary().startsWith(c.summary)) << dialog.summary().toStdString();
        EXPECT_EQ(dialog.summary().contains(QStringLiteral("Average time per image: none finished")), !c.holdFirst);
        EXPECT_FALSE(dialog.summary().contains(QStringLiteral("inf")) || dialog.summary().contains(QStringLiteral("nan")));
        const QLabel* onPage = dialog.findChild<QLabel*>(QStringLiteral("summaryLabel"));
        EXPECT_TRUE(onPage->isVisibleTo(&dialog) && onPage->text().startsWith(c.summary.left(c.summary.size() - 4).replace(QLatin1Char(' '), QStringLiteral("&nbsp;"))));
    }
}

// The whole workflow on the real engine: a fingerprint of one camera unit, a
// folder mixing its photos with another unit's; every photo in its class.
// QUORVEX_SCREENSHOT_DIR keeps pictures of the running and finished dialog.
TEST_F(AnalyzeTest, FullRunSortsAMixedFolder)
{
    const QString fingerprint = learnFingerprint();
    const camsim::Camera same = camera(1);
    const camsim::Camera other = camera(2);
    for (int i = 0; i < 5; ++i)
        shoot(same, 300 + i, m_photos.filePath(QStringLiteral("IMG_A%1.jpg").arg(i)));
    for (int i = 0; i < 4; ++i)
        shoot(other, 400 + i, m_photos.filePath(QStringLiteral("IMG_B%1.jpg").arg(i)));
    // A larger sensor's photo, not 4:3 (so no resize either): the engine cannot compare it.
    shoot(camera(3, 1280, 1024), 500, m_photos.filePath(QStringLiteral("IMG_C0.jpg")));
    const QString folder = qEnvironmentVariableIsSet("QUORVEX_SCREENSHOT_DIR")
                               ? qEnvironmentVariable("QUORVEX_SCREENSHOT_DIR")
                               : m_out.path();

    CAnalyzeDlg::setStartDelay(500);
    CMainWindow window(1.0);
    window.setStyleSheet(qcontrols::CStyleSheetManager::load(quorvex::styleSheetResourcePath(),
                                                             quorvex::styleConstantsResourcePath(), 1.0));
    window.resize(1280, 800);
    window.show();
    window.introPage()->findChild<QPushButton*>(QStringLiteral("btnAnalyze"))->click();
    auto* page = qobject_cast<CChoosePathAnalyze*>(window.currentPage());
    ASSERT_TRUE(page);
    ASSERT_EQ(page->files().size(), 10);
    {
        CScriptedDialogs script({{QDialog::Accepted, fingerprint}});
        button<QPushButton>(page, "btnNavigateNext")->click();
    }
    auto* info = qobject_cast<CFingerprintInfoScr*>(window.currentPage());
    ASSERT_TRUE(info);
    CScriptedDialogs script({{QMessageBox::Ok, {}}});
    button<QPushButton>(info, "btnNavigateNext")->click();
    auto* dialog = qobject_cast<CAnalyzeDlg*>(window.currentPage());
    ASSERT_TRUE(dialog);
    ASSERT_TRUE(testutils::waitFor([&] {
        const QVector<int> c = dialog->counters();
        return c[0] + c[1] + c[2] + c[3] + c[4] >= 3;
    }, 120000));
    EXPECT_TRUE(window.grab().save(QDir(folder).filePath(QStringLiteral("analyze-running.png"))));
    ASSERT_TRUE(testutils::waitFor([&] { return dialog->isFinished(); }, 300000));

    CImageModel* model = dialog->gallery()->imageModel();
    const QFileInfoList files = model->files();
    for (int row = 0; row < files.size(); ++row)
    {
        const int state = CGalleryFilterModel::stateValue(model->index(row).data(CImageModel::ItemStateRole));
        if (files.at(row).fileName().startsWith(QStringLiteral("IMG_A")))
            EXPECT_EQ(state, CImageModel::SuccessVeryHigh) << files.at(row).fileName().toStdString();
        else if (files.at(row).fileName().startsWith(QStringLiteral("IMG_C")))
            EXPECT_EQ(state, CImageModel::NotCompared);
        else
            EXPECT_EQ(state, CImageModel::Fail) << files.at(row).fileName().toStdString();
    }
    EXPECT_EQ(dialog->counters(), (QVector<int>{5, 0, 0, 0, 4, 1}));
    dialog->filterCombo()->setCurrentIndex(CAnalyzeDlg::FilterVeryHigh);
    QCoreApplication::processEvents();
    EXPECT_EQ(dialog->gallery()->model()->rowCount(), 5);
    EXPECT_TRUE(window.grab().save(QDir(folder).filePath(QStringLiteral("analyze-finished.png"))));
    dialog->filterCombo()->setCurrentIndex(CAnalyzeDlg::FilterNotCompared);
    QCoreApplication::processEvents();
    EXPECT_EQ(dialog->gallery()->model()->rowCount(), 1);
    EXPECT_TRUE(window.grab().save(QDir(folder).filePath(QStringLiteral("analyze-not-compared.png"))));
}

// The automatic report after a cancelled run still covers the whole list; a
// report asked for later covers the filtered photos. A stand-in converter
// records the document it gets.
TEST_F(AnalyzeTest, ReportsAutomaticAfterCancelAndOnRequest)
{
    const QString converter = m_out.filePath(QStringLiteral("convert.sh"));
    {
        QFile file(converter);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("#!/bin/sh\n"
                   "eval input=\\${$#}\n"
                   "eval output=\\${$(($# - 1))}\n"
                   "cp \"$(printf '%s' \"$input\" | sed 's|^file://||')\" \"$(dirname \"$0\")/seen.html\"\n"
                   "printf 'pdf' > \"$(printf '%s' \"$output\" | sed 's|^file://||')\"\n"
                   "echo 100%\n");
        file.close();
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    qutils::CHtmlToPdfTask::setConverterPath(converter);
    auto stub = std::make_shared<CStubFingerprint>();
    QSemaphore gate;
    stub->gate = &gate;
    QStringList names;
    for (int i = 0; i < 6; ++i)
        names << QStringLiteral("p%1.jpg").arg(i);
    const QFileInfoList files = namedFiles(names);
    stub->answers.insert(QStringLiteral("p0.jpg"), Result{true, 0.9999, 0.05, CQuorvexAPI::Success, 900});

    const QString automatic = m_out.filePath(QStringLiteral("auto.pdf"));
    {
        CScriptedDialogs script({{QMessageBox::Yes, {}}, {QMessageBox::Ok, {}}});
        CAnalyzeDlg dialog(files, automatic, false, nullptr, stub);
        ASSERT_TRUE(testutils::waitFor([&] {
            return dialog.gallery()->imageModel()->index(0).data(CImageModel::ItemStateRole).value<CImageModel::State>() ==
                   CImageModel::Processing;
        }));
        button<QPushButton>(&dialog, "btnNavigateCancel")->click();
        gate.release(6);
        ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));
        ASSERT_TRUE(testutils::waitFor([&] { return CDialogScript::shown().size() == 2; }));
        EXPECT_EQ(CDialogScript::shown().at(1).title, QStringLiteral("Finished")) << CDialogScript::shown().at(1).text.toStdString();
        EXPECT_TRUE(CDialogScript::shown().at(1).text.contains(QStringLiteral("Report file was successfully created.<br />")));
        EXPECT_TRUE(QFileInfo::exists(automatic));
    }
    const QString seen = testutils::readText(m_out.filePath(QStringLiteral("seen.html")));
    EXPECT_EQ(seen.count(QStringLiteral("<tr><td align = \"center\">")), 6) << "every photo, processed or not";

    // On request, with the very-high filter: only that photo.
    gate.release(100);
    CScriptedDialogs script({{QMessageBox::Ok, {}},
                             {QDialog::Accepted, m_out.filePath(QStringLiteral("asked.pdf"))},
                             {QMessageBox::Ok, {}}});
    CAnalyzeDlg dialog(files, QString(), false, nullptr, stub);
    ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));
    dialog.filterCombo()->setCurrentIndex(CAnalyzeDlg::FilterVeryHigh);
    button<QPushButton>(&dialog, "btnNavigateSaveReport")->click();
    ASSERT_EQ(CDialogScript::shown().size(), 3);
    EXPECT_EQ(CDialogScript::shown().at(1).title, QStringLiteral("Choose destination for report"));
    EXPECT_TRUE(CDialogScript::shown().at(1).text.endsWith(QStringLiteral("|(*.pdf);;All Files (*)")));
    EXPECT_EQ(CDialogScript::shown().at(2).title, QStringLiteral("Finished"));
    const QString asked = testutils::readText(m_out.filePath(QStringLiteral("seen.html")));
    EXPECT_EQ(asked.count(QStringLiteral("<tr><td align = \"center\">")), 1);
    EXPECT_TRUE(asked.contains(QStringLiteral("Fingerprint found with very high probability")));
    EXPECT_EQ(CSettings::lastReport().absoluteFilePath(), QFileInfo(m_out.filePath(QStringLiteral("asked.pdf"))).absoluteFilePath());
    qutils::CHtmlToPdfTask::setConverterPath(QString());
}
