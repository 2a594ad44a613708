// The Analyze workflow: the set-up screens, the analysis dialog with a
// scripted fingerprint at the match seam, and a full run on the real engine.
#include "analyzedlg.h"
#include "choosepathanalyze.h"
#include "englishtexts.h"
#include "fingerprintinfo.h"
#include "galleryfiltermodel.h"
#include "gallerywidget.h"
#include "imagemodel.h"
#include "intropagedlg.h"
#include "mainwindow.h"
#include "multiplethreadanalyzer.h"
#include "resources.h"
#include "resultclass.h"
#include "settings.h"

#include "qcontrols/dialogscript.h"
#include "qcontrols/navigationbutton.h"
#include "qcontrols/stylesheetmanager.h"
#include "qutils/appsettings.h"
#include "qutils/htmltopdftask.h"
#include "scriptedsteps.h"
#include "simcamera.h"
#include "testfiles.h"
#include "testutils.h"

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSemaphore>
#include <QTemporaryDir>

#include <gtest/gtest.h>

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

template <typename T = QPushButton> T* child(QWidget* page, const char* name)
{
    return page->findChild<T*>(QString::fromLatin1(name));
}

QString titleOf(QWidget* page)
{
    return child<QLabel>(page, "titleLabel")->text();
}

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
        m_stub->gate = &m_gate;
    }
    void TearDown() override
    {
        CAnalyzeDlg::setStartDelay(500);
        QCoreApplication::removeTranslator(&m_english);
        qutils::CAppSettings::setConfigFolder(QString());
        qutils::CHtmlToPdfTask::setConverterPath(QString());
    }

    // Empty files: the stub answers by name.
    QFileInfoList namedFiles(const QStringList& names)
    {
        QFileInfoList files;
        for (const QString& name : names)
        {
            files << QFileInfo(m_photos.filePath(name));
            EXPECT_TRUE(testutils::writeFile(files.last().filePath()));
        }
        return files;
    }
    QFileInfoList numberedFiles(int count)
    {
        QStringList names;
        for (int i = 0; i < count; ++i)
            names << QStringLiteral("p%1.jpg").arg(i);
        return namedFiles(names);
    }

    // A real fingerprint of camera unit 1 from five photos.
    QString learnFingerprint()
    {
        QTemporaryDir references;
        const QFileInfoList photos =
            testutils::shootSeries(camsim::Camera(testutils::simCamera(1)), 100, 5, references.path());
        const QString path = m_out.filePath(QStringLiteral("unit1.fnp"));
        EXPECT_EQ(CFingerprint::createFingerprint(photos, QFileInfo(path), nullptr), CQuorvexAPI::Success);
        return path;
    }

    // Waits until the first photo is being matched (held at the gate).
    static void waitForFirstMatch(CAnalyzeDlg& dialog)
    {
        ASSERT_TRUE(testutils::waitFor([&] {
            return dialog.gallery()->imageModel()->index(0).data(CImageModel::ItemStateRole).value<CImageModel::State>() ==
                   CImageModel::Processing;
        }));
    }

    CEnglishTexts m_english;
    QTemporaryDir m_config;
    QTemporaryDir m_photos;
    QTemporaryDir m_out;
    QSemaphore m_gate;
    std::shared_ptr<CStubFingerprint> m_stub = std::make_shared<CStubFingerprint>();
};

} // namespace

TEST_F(AnalyzeTest, SetUpScreensCheckTheFingerprintBeforeTheFolder)
{
    const QString fingerprint = learnFingerprint();
    CMainWindow window(1.0);
    auto* page = new CChoosePathAnalyze;
    window.pushPage(page);
    EXPECT_EQ(titleOf(page), QStringLiteral("Choose folder with photos to analyze"));
    ASSERT_TRUE(page->files().isEmpty());
    auto* next = child(page, "btnNavigateNext");
    ASSERT_TRUE(next);

    const auto clickNext = [&](const QList<CDialogScript::SAnswer>& answers) {
        return testutils::shownWhile(answers, [&] { next->click(); });
    };
    const auto isFingerprintDialog = [](const QString& shown) {
        return shown.startsWith(QStringLiteral("open|Select fingerprint file|")) &&
               shown.endsWith(QStringLiteral("|Fingerprint Files (*.fnp)"));
    };
    // Cancelling the fingerprint dialog does nothing at all.
    const QFileInfo before = CSettings::lastRecognizer();
    QStringList shown = clickNext({{QDialog::Rejected, {}}});
    ASSERT_EQ(shown.size(), 1);
    EXPECT_TRUE(isFingerprintDialog(shown[0])) << shown[0].toStdString();
    EXPECT_EQ(CSettings::lastRecognizer(), before);

    // Not a fingerprint: refused, yet remembered.
    const QString bogus = m_out.filePath(QStringLiteral("bogus.fnp"));
    ASSERT_TRUE(testutils::writeFile(bogus, "not a fingerprint"));
    shown = clickNext({{QDialog::Accepted, bogus}, {QMessageBox::Ok, {}}});
    ASSERT_EQ(shown.size(), 2);
    EXPECT_TRUE(shown[1].endsWith(QStringLiteral("|Fingerprint file cannot be loaded.\nbogus.fnp cannot be used as a fingerprint: "
                                                 "it is not a fingerprint file, or one in a format this version cannot read.")))
        << shown[1].toStdString();
    EXPECT_EQ(CSettings::lastRecognizer().absoluteFilePath(), QFileInfo(bogus).absoluteFilePath());

    // A good fingerprint and an empty folder: the fingerprint is asked first.
    shown = clickNext({{QDialog::Accepted, fingerprint}, {QMessageBox::Ok, {}}});
    ASSERT_EQ(shown.size(), 2);
    EXPECT_TRUE(isFingerprintDialog(shown[0]));
    EXPECT_TRUE(shown[1].endsWith(QStringLiteral("|Error|Folder does not contain any images."))) << shown[1].toStdString();
    EXPECT_EQ(window.currentPage(), page);

    // With photos, the properties screen follows, options unchecked; so does a
    // fresh visit after Back, with the report's case details as they were left.
    namedFiles({QStringLiteral("q1.jpg"), QStringLiteral("q2.jpg")});
    page->listFolder(QDir(m_photos.path()), false);
    for (const bool again : {false, true})
    {
        clickNext({{QDialog::Accepted, fingerprint}});
        auto* info = qobject_cast<CFingerprintInfoScr*>(window.currentPage());
        ASSERT_TRUE(info);
        EXPECT_EQ(info->fingerprintInfo()->valueText(CFingerprint::TrainingImagesCount), QStringLiteral("5"));
        const QList<QCheckBox*> boxes = info->findChildren<QCheckBox*>(QStringLiteral("fingerprintSettings"));
        ASSERT_EQ(boxes.size(), 2);
        EXPECT_EQ(boxes.at(0)->text(), QStringLiteral("Skip photos from different camera (EXIF)"));
        EXPECT_EQ(boxes.at(1)->text(), QStringLiteral("Automatically generate PDF report"));
        EXPECT_FALSE(boxes.at(0)->isChecked() || boxes.at(1)->isChecked());
        ASSERT_TRUE(child(info, "changePathBtn"));
        auto* caseNumber = child<QLineEdit>(info, "reportCaseNumber");
        if (again)
        {
            EXPECT_EQ(caseNumber->text(), QStringLiteral("2026/17"));
            break;
        }
        // An automatic report whose save dialog is cancelled starts nothing.
        boxes.at(1)->setChecked(true);
        shown = testutils::shownWhile({{QDialog::Rejected, {}}}, [&] { child(info, "btnNavigateNext")->click(); });
        ASSERT_EQ(shown.size(), 1);
        EXPECT_TRUE(shown[0].contains(QStringLiteral("|Choose destination for report|"))) << shown[0].toStdString();
        EXPECT_EQ(window.currentPage(), info);
        caseNumber->setText(QStringLiteral("2026/17"));
        child(info, "btnNavigateBackLeft")->click();
        EXPECT_EQ(window.currentPage(), page);
    }
}

TEST_F(AnalyzeTest, ClassesCountersAndFilterTexts)
{
    const auto bold = [](CQuorvexAPI::EStatus status) { return QStringLiteral("<b>%1</b>").arg(CQuorvexAPI::statusText(status)); };
    const struct
    {
        const char* name;
        Result answer;
        CImageModel::State state;
        QString description;
    } photos[] = {
        {"vh.jpg", {true, 0.999, 0.05, CQuorvexAPI::Success, 900}, CImageModel::SuccessVeryHigh,
         QStringLiteral("<b>Match: very high probability</b>")},
        {"h.jpg", {true, 0.995, 0.04, CQuorvexAPI::Success, 300}, CImageModel::SuccessHigh,
         QStringLiteral("<b>Match: high probability</b>")},
        {"m.jpg", {true, 0.99, 0.03, CQuorvexAPI::Success, 100}, CImageModel::SuccessMedium,
         QStringLiteral("<b>Match: medium probability</b>")},
        {"l.jpg", {true, 0.9899, 0.02, CQuorvexAPI::Success, 70}, CImageModel::SuccessLow,
         QStringLiteral("<b>Match: low probability</b>")},
        {"none.jpg", {false, 0.0, 0.001, CQuorvexAPI::Success, 3}, CImageModel::Fail, QStringLiteral("<b>No match</b>")},
        {"broken.jpg", {false, 0.0, 0.0, CQuorvexAPI::BrokenImage, 0}, CImageModel::Fail, bold(CQuorvexAPI::BrokenImage)},
        // An error status on a "matched" record: shown as the error, but the
        // not-found counter goes by matched alone, so no counter moves.
        {"odd.jpg", {true, 0.5, 0.0, CQuorvexAPI::AnalysisFailed, 0}, CImageModel::Fail, bold(CQuorvexAPI::AnalysisFailed)},
        // Never compared: counted apart, never with the photos of no match.
        {"big.jpg", {false, 0.0, 0.0, CQuorvexAPI::ImageFingerprintInconsistentSize, 0, QStringLiteral("too <big>")},
         CImageModel::NotCompared,
         QStringLiteral("<b>Not compared: Size is incompatible with fingerprint</b><br />too &lt;big&gt;")},
        {"exif.jpg", {false, 0.0, 0.0, CQuorvexAPI::InconsistentMetadata, 0, QStringLiteral("the photo was taken with X Y")},
         CImageModel::NotCompared,
         QStringLiteral("<b>Not compared: Different camera type</b><br />the photo was taken with X Y")},
    };
    QStringList names;
    for (const auto& photo : photos)
    {
        names << QString::fromLatin1(photo.name);
        m_stub->answers.insert(names.last(), photo.answer);
    }
    const QFileInfoList files = namedFiles(names);
    m_stub->gate = nullptr;

    CScriptedDialogs script({{QMessageBox::Ok, {}}});
    CAnalyzeDlg dialog(files, QString(), false, nullptr, m_stub);
    EXPECT_EQ(titleOf(&dialog), QStringLiteral("Analyzing selected photos"));
    EXPECT_FALSE(child(&dialog, "btnNavigateSaveReport")->isVisibleTo(&dialog));
    EXPECT_FALSE(child(&dialog, "btnNavigateHome")->isVisibleTo(&dialog));
    ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));

    EXPECT_EQ(dialog.counters(), (QVector<int>{1, 1, 1, 1, 2, 2}));
    QStringList filterTexts;
    for (int i = 0; i < dialog.filterCombo()->count(); ++i)
        filterTexts << dialog.filterCombo()->itemText(i);
    EXPECT_EQ(filterTexts,
              (QStringList{QStringLiteral("All (9)"), QStringLiteral("Very high probability (1)"),
                           QStringLiteral("High probability (1)"), QStringLiteral("Medium probability (1)"),
                           QStringLiteral("Low probability (1)"), QStringLiteral("Fingerprint not found (2)"),
                           QStringLiteral("Not processed (1)"), QStringLiteral("Not compared (2)")}));

    for (int row = 0; row < files.size(); ++row)
    {
        SCOPED_TRACE(photos[row].name);
        const QModelIndex index = dialog.gallery()->imageModel()->index(row);
        EXPECT_EQ(CGalleryFilterModel::stateValue(index.data(CImageModel::ItemStateRole)), photos[row].state);
        EXPECT_EQ(index.data(CImageModel::DescriptionRole).toString(), photos[row].description);
    }

    // The end: summary box, title, buttons.
    ASSERT_EQ(CDialogScript::shown().size(), 1);
    EXPECT_EQ(CDialogScript::shown().at(0).title, QStringLiteral("Analysis finished"));
    EXPECT_TRUE(dialog.summary().startsWith(QStringLiteral("Photos analyzed: 9/9<br>Fingerprints found: 4<br>"
                                                           "Fingerprints not found: 2<br>Not compared: 2<br>"
                                                           "Time elapsed: ")));
    EXPECT_TRUE(dialog.summary().contains(QStringLiteral("&nbsp;s<br>Average time per image: ")));
    EXPECT_EQ(titleOf(&dialog), QStringLiteral("Analysis finished"));
    EXPECT_FALSE(child(&dialog, "btnNavigateCancel")->isVisibleTo(&dialog));

    // Filters: the gallery and the report button follow.
    auto* save = child<qcontrols::CNavigationButton>(&dialog, "btnNavigateSaveReport");
    ASSERT_TRUE(save);
    EXPECT_TRUE(save->isVisibleTo(&dialog));
    EXPECT_EQ(save->description(), QStringLiteral("All 8 processed photos selected for report"));
    const struct
    {
        int filter;
        int rows;
        const char* description;
    } filters[] = {
        {CAnalyzeDlg::FilterVeryHigh, 1, "1 photo selected for report"},
        // Every photo in state Fail.
        {CAnalyzeDlg::FilterNotFound, 3, nullptr},
        {CAnalyzeDlg::FilterNotCompared, 2, "2 photos selected for report"},
        {CAnalyzeDlg::FilterNotProcessed, 0, "No processed photos selected for report"},
    };
    for (const auto& f : filters)
    {
        dialog.filterCombo()->setCurrentIndex(f.filter);
        EXPECT_EQ(dialog.gallery()->model()->rowCount(), f.rows) << f.filter;
        if (f.description)
        {
            EXPECT_EQ(save->description(), QString::fromLatin1(f.description));
        }
    }
    // "Not processed" never makes a report.
    CScriptedDialogs refuse({{QMessageBox::Ok, {}}});
    save->click();
    ASSERT_EQ(CDialogScript::shown().size(), 1);
    EXPECT_EQ(CDialogScript::shown().at(0).text, QStringLiteral("No photos in selection"));
}

TEST_F(AnalyzeTest, EnglishPluralsWordingAndRemainingTime)
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

    const std::pair<qint64, const char*> times[] = {
        {-1, "unknown"}, {0, "0h 0m 00s"}, {247000, "0h 4m 07s"}, {86399999, "23h 59m 59s"}, {90061000, "1d 1h 1m 01s"}};
    for (const auto& [ms, text] : times)
        EXPECT_EQ(remainingTimeText(ms), QString::fromLatin1(text)) << ms;
    EXPECT_EQ(CAnalyzeDlg::remainingMilliseconds(1000, 1, 4), 3000);
    EXPECT_EQ(CAnalyzeDlg::remainingMilliseconds(1000, 0, 4), 3000) << "processed counts as at least 1";
    EXPECT_EQ(CAnalyzeDlg::remainingMilliseconds(1000, 4, 4), 0);
}

// No keeps the run; Yes stops it, though the photos being matched finish and
// the rest stay "not processed". Yes after the last photo was taken stops
// nothing, so the run is finished; before the first photo, no average is
// divided out.
TEST_F(AnalyzeTest, CancelQuestionKeepsTheRunOnNoAndStopsItOnYes)
{
    const QFileInfoList files = numberedFiles(12);
    const struct
    {
        int photos;
        int answer;
        bool holdFirst;
        bool cancelled;
        int analyzed; // -1: some, not all
    } cases[] = {
        {12, QMessageBox::No, true, false, 12},
        {12, QMessageBox::Yes, true, true, -1},
        {1, QMessageBox::Yes, true, false, 1},
        {3, QMessageBox::Yes, false, true, 0},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(testing::Message() << c.photos << " photos, answer " << c.answer);
        m_gate.tryAcquire(m_gate.available()); // permits left by the runs before
        CScriptedDialogs script({{c.answer, {}}, {QMessageBox::Ok, {}}});
        CAnalyzeDlg dialog(files.mid(0, c.photos), QString(), false, nullptr, m_stub);
        // Before the first photo: every counter 0 and the whole list not processed.
        const QString line = child<QLabel>(&dialog, "progressLabel")->text();
        EXPECT_TRUE(line.startsWith(QStringLiteral("Processed 0 of %1 (0.00 %) (remaining time: ").arg(c.photos)))
            << line.toStdString();
        EXPECT_EQ(dialog.filterCombo()->itemText(6), QStringLiteral("Not processed (%1)").arg(c.photos));
        if (c.holdFirst)
            waitForFirstMatch(dialog);
        child(&dialog, "btnNavigateCancel")->click();
        ASSERT_GE(CDialogScript::shown().size(), 1);
        EXPECT_EQ(CDialogScript::shown().at(0).title, QStringLiteral("Cancel"));
        EXPECT_EQ(CDialogScript::shown().at(0).text, QStringLiteral("Do you really want to cancel the current analysis?"));
        EXPECT_EQ(dialog.analyzer()->isCancelled(), c.answer == QMessageBox::Yes);
        EXPECT_FALSE(dialog.isFinished()) << "cancelling is a request; the photos being matched finish";
        m_gate.release(c.photos);
        ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));

        const int analyzed = dialog.analyzer()->analyzedCount();
        EXPECT_TRUE(c.analyzed < 0 ? analyzed < c.photos : analyzed == c.analyzed) << analyzed;
        const QString title = c.cancelled ? QStringLiteral("Analysis cancelled") : QStringLiteral("Analysis finished");
        EXPECT_EQ(CDialogScript::shown().last().title, title);
        EXPECT_EQ(titleOf(&dialog), title);
        EXPECT_EQ(dialog.wasCancelled(), c.cancelled);
        const QString summary = dialog.summary();
        QString first = QStringLiteral("Photos analyzed: %1/%2").arg(analyzed).arg(c.photos);
        EXPECT_TRUE(summary.startsWith(first + QStringLiteral("<br>"))) << summary.toStdString();
        EXPECT_EQ(summary.contains(QStringLiteral("Average time per image: none finished")), analyzed == 0);
        EXPECT_FALSE(summary.contains(QStringLiteral("inf")) || summary.contains(QStringLiteral("nan")));
        const QLabel* onPage = child<QLabel>(&dialog, "summaryLabel");
        EXPECT_TRUE(onPage->isVisibleTo(&dialog) &&
                    onPage->text().startsWith(first.replace(QLatin1Char(' '), QStringLiteral("&nbsp;"))));
        const QVector<int> counters = dialog.counters();
        EXPECT_EQ(dialog.filterCombo()->itemText(6),
                  QStringLiteral("Not processed (%1)").arg(c.photos - std::accumulate(counters.begin(), counters.end(), 0)));
    }
}

// The whole workflow on the real engine: a fingerprint of one camera unit, a
// folder mixing its photos with another unit's; every photo in its class.
// QUORVEX_SCREENSHOT_DIR keeps pictures of the running and finished dialog.
TEST_F(AnalyzeTest, FullRunSortsAMixedFolder)
{
    const QString fingerprint = learnFingerprint();
    testutils::shootSeries(camsim::Camera(testutils::simCamera(1)), 300, 5, m_photos.path(), QStringLiteral("IMG_A"));
    testutils::shootSeries(camsim::Camera(testutils::simCamera(2)), 400, 4, m_photos.path(), QStringLiteral("IMG_B"));
    // A larger sensor's photo, not 4:3 (so no resize either): the engine cannot compare it.
    testutils::shootSeries(camsim::Camera(testutils::simCamera(3, 1280, 1024)), 500, 1, m_photos.path(),
                           QStringLiteral("IMG_C"));
    const QDir folder(qEnvironmentVariableIsSet("QUORVEX_SCREENSHOT_DIR") ? qEnvironmentVariable("QUORVEX_SCREENSHOT_DIR")
                                                                          : m_out.path());

    CAnalyzeDlg::setStartDelay(500);
    CMainWindow window(1.0);
    window.setStyleSheet(qcontrols::CStyleSheetManager::load(quorvex::styleSheetResourcePath(),
                                                             quorvex::styleConstantsResourcePath(), 1.0));
    window.resize(1280, 800);
    window.show();
    child(window.introPage(), "btnAnalyze")->click();
    auto* page = qobject_cast<CChoosePathAnalyze*>(window.currentPage());
    ASSERT_TRUE(page);
    ASSERT_EQ(page->files().size(), 10);
    {
        CScriptedDialogs script({{QDialog::Accepted, fingerprint}});
        child(page, "btnNavigateNext")->click();
    }
    auto* info = qobject_cast<CFingerprintInfoScr*>(window.currentPage());
    ASSERT_TRUE(info);
    CScriptedDialogs script({{QMessageBox::Ok, {}}});
    child(info, "btnNavigateNext")->click();
    auto* dialog = qobject_cast<CAnalyzeDlg*>(window.currentPage());
    ASSERT_TRUE(dialog);
    ASSERT_TRUE(testutils::waitFor([&] {
        const QVector<int> c = dialog->counters();
        return c[0] + c[1] + c[2] + c[3] + c[4] >= 3;
    }, 120000));
    EXPECT_TRUE(window.grab().save(folder.filePath(QStringLiteral("analyze-running.png"))));
    ASSERT_TRUE(testutils::waitFor([&] { return dialog->isFinished(); }, 300000));

    CImageModel* model = dialog->gallery()->imageModel();
    const QFileInfoList files = model->files();
    for (int row = 0; row < files.size(); ++row)
    {
        const QString name = files.at(row).fileName();
        const int state = CGalleryFilterModel::stateValue(model->index(row).data(CImageModel::ItemStateRole));
        EXPECT_EQ(state, name.startsWith(QStringLiteral("IMG_A"))   ? CImageModel::SuccessVeryHigh
                         : name.startsWith(QStringLiteral("IMG_C")) ? CImageModel::NotCompared
                                                                     : CImageModel::Fail)
            << name.toStdString();
    }
    EXPECT_EQ(dialog->counters(), (QVector<int>{5, 0, 0, 0, 4, 1}));
    const std::pair<int, const char*> views[] = {{CAnalyzeDlg::FilterVeryHigh, "analyze-finished.png"},
                                                 {CAnalyzeDlg::FilterNotCompared, "analyze-not-compared.png"}};
    for (const auto& [filter, picture] : views)
    {
        dialog->filterCombo()->setCurrentIndex(filter);
        QCoreApplication::processEvents();
        EXPECT_EQ(dialog->gallery()->model()->rowCount(), filter == CAnalyzeDlg::FilterVeryHigh ? 5 : 1);
        EXPECT_TRUE(window.grab().save(folder.filePath(QString::fromLatin1(picture))));
    }
}

// The automatic report after a cancelled run still covers the whole list; a
// report asked for later covers the filtered photos. A stand-in converter
// records the document it gets.
TEST_F(AnalyzeTest, ReportsAutomaticAfterCancelAndOnRequest)
{
    const QString converter = m_out.filePath(QStringLiteral("convert.sh"));
    ASSERT_TRUE(testutils::writeFile(converter, "#!/bin/sh\n"
                                                "eval input=\\${$#}\n"
                                                "eval output=\\${$(($# - 1))}\n"
                                                "cp \"$(printf '%s' \"$input\" | sed 's|^file://||')\" \"$(dirname \"$0\")/seen.html\"\n"
                                                "printf 'pdf' > \"$(printf '%s' \"$output\" | sed 's|^file://||')\"\n"
                                                "echo 100%\n"));
    QFile::setPermissions(converter, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qutils::CHtmlToPdfTask::setConverterPath(converter);
    const QFileInfoList files = numberedFiles(6);
    m_stub->answers.insert(QStringLiteral("p0.jpg"), Result{true, 0.9999, 0.05, CQuorvexAPI::Success, 900});
    const QString rowStart = QStringLiteral("<tr><td align = \"center\">");

    const QString automatic = m_out.filePath(QStringLiteral("auto.pdf"));
    {
        CScriptedDialogs script({{QMessageBox::Yes, {}}, {QMessageBox::Ok, {}}});
        CAnalyzeDlg dialog(files, automatic, false, nullptr, m_stub);
        waitForFirstMatch(dialog);
        child(&dialog, "btnNavigateCancel")->click();
        m_gate.release(6);
        ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));
        ASSERT_TRUE(testutils::waitFor([&] { return CDialogScript::shown().size() == 2; }));
        EXPECT_EQ(CDialogScript::shown().at(1).title, QStringLiteral("Finished")) << CDialogScript::shown().at(1).text.toStdString();
        EXPECT_TRUE(CDialogScript::shown().at(1).text.contains(QStringLiteral("Report file was successfully created.<br />")));
        EXPECT_TRUE(QFileInfo::exists(automatic));
    }
    const QString seen = testutils::readText(m_out.filePath(QStringLiteral("seen.html")));
    EXPECT_EQ(seen.count(rowStart), 6) << "every photo, processed or not";

    // On request, with the very-high filter: only that photo.
    m_gate.release(100);
    const QString asked = m_out.filePath(QStringLiteral("asked.pdf"));
    CScriptedDialogs script({{QMessageBox::Ok, {}}, {QDialog::Accepted, asked}, {QMessageBox::Ok, {}}});
    CAnalyzeDlg dialog(files, QString(), false, nullptr, m_stub);
    ASSERT_TRUE(testutils::waitFor([&] { return dialog.isFinished(); }));
    dialog.filterCombo()->setCurrentIndex(CAnalyzeDlg::FilterVeryHigh);
    child(&dialog, "btnNavigateSaveReport")->click();
    ASSERT_EQ(CDialogScript::shown().size(), 3);
    EXPECT_EQ(CDialogScript::shown().at(1).title, QStringLiteral("Choose destination for report"));
    EXPECT_TRUE(CDialogScript::shown().at(1).text.endsWith(QStringLiteral("|(*.pdf);;All Files (*)")));
    EXPECT_EQ(CDialogScript::shown().at(2).title, QStringLiteral("Finished"));
    const QString document = testutils::readText(m_out.filePath(QStringLiteral("seen.html")));
    EXPECT_EQ(document.count(rowStart), 1);
    EXPECT_TRUE(document.contains(QStringLiteral("Fingerprint found with very high probability")));
    EXPECT_EQ(CSettings::lastReport().absoluteFilePath(), QFileInfo(asked).absoluteFilePath());
}
