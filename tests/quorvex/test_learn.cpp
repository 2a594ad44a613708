// The Learn workflow: the reference-photo page, the learn screen and its worker
// with the real engine on simulated photos, the quality chart and the
// fingerprint properties page.
#include "choosepathlearn.h"
#include "fingerprintinfo.h"
#include "gallerywidget.h"
#include "imagemodel.h"
#include "intropagedlg.h"
#include "learninfo.h"
#include "learnscr.h"
#include "mainwindow.h"
#include "resources.h"
#include "settings.h"
#include "statisticsdlg.h"

#include "qcontrols/dialogscript.h"
#include "qcontrols/stylesheetmanager.h"
#include "qutils/appsettings.h"
#include "qutils/quorvexapi.h"
#include "scriptedsteps.h"
#include "simcamera.h"
#include "testfiles.h"
#include "testutils.h"

#include <QCoreApplication>
#include <QDialog>
#include <QFile>
#include <QLabel>
#include <QMessageBox>
#include <QMutex>
#include <QPushButton>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using qcontrols::CDialogScript;
using qcontrols::CScriptedDialogs;
using testutils::shownWhile;

namespace
{

class LearnTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_config.isValid());
        qutils::CAppSettings::setConfigFolder(m_config.path());
        CSettings::setLastTeachingPath(QDir(m_photos.path()));
        CSettings::setCurrentFingerprint(QFileInfo());
    }
    void TearDown() override
    {
        qutils::CAppSettings::setConfigFolder(QString());
        qcontrols::CStyleSheetManager::clear();
    }

    // Empty files are enough for the page: it only counts names.
    void touchPhotos(int count)
    {
        for (int i = 0; i < count; ++i)
            ASSERT_TRUE(testutils::writeFile(m_photos.filePath(QStringLiteral("p%1.jpg").arg(i, 3, 10, QLatin1Char('0')))));
    }

    QString shoot(int scene, const QString& name, int width = 1024, int height = 768)
    {
        return testutils::shoot(camsim::Camera(testutils::simCamera(11, width, height)), static_cast<uint64_t>(scene),
                                m_photos.filePath(name));
    }

    QFileInfoList shootSeries(int count, int firstScene, const QString& pattern)
    {
        QFileInfoList photos;
        for (int i = 0; i < count; ++i)
            photos << QFileInfo(shoot(firstScene + i, pattern.arg(i)));
        return photos;
    }

    QTemporaryDir m_config;
    QTemporaryDir m_photos;
    QTemporaryDir m_out;
};

// The program's own style sheet, as it is applied at start-up.
QString appStyleSheet(double scale)
{
    return qcontrols::CStyleSheetManager::load(quorvex::styleSheetResourcePath(),
                                               quorvex::styleConstantsResourcePath(), scale);
}

template <typename T = QPushButton> T* child(QWidget* page, const char* name)
{
    return page->findChild<T*>(QString::fromLatin1(name));
}

QString screenshotFolder(const QTemporaryDir& fallback)
{
    return qEnvironmentVariableIsSet("QUORVEX_SCREENSHOT_DIR") ? qEnvironmentVariable("QUORVEX_SCREENSHOT_DIR")
                                                               : fallback.path();
}

} // namespace

TEST_F(LearnTest, ReferencePageChecksTheCountAndAsksForTheDestination)
{
    touchPhotos(2);
    CMainWindow window(1.0);
    auto* page = new CChoosePathLearn;
    window.pushPage(page);
    // The remembered folder is listed at once.
    EXPECT_EQ(page->files().size(), 2);
    QPushButton* next = child(page, "btnNavigateNext");
    ASSERT_TRUE(next);
    EXPECT_EQ(next->text(), QStringLiteral("Next"));
    const auto clickNext = [&](const QList<CDialogScript::SAnswer>& answers) {
        return shownWhile(answers, [&] { next->click(); });
    };
    const auto relist = [&](int expected) {
        page->listFolder(QDir(m_photos.path()), false);
        ASSERT_EQ(page->files().size(), expected);
    };
    // No save dialog after the refusal.
    EXPECT_EQ(clickNext({{QMessageBox::Ok, {}}}),
              QStringList{QStringLiteral("warning|Not enough images|A folder with at least 3 images from the camera is needed.")});

    // Exactly three pass; a cancelled save dialog leaves everything as it was.
    touchPhotos(3);
    relist(3);
    const QFileInfo before = CSettings::lastRecognizer();
    QStringList shown = clickNext({{QDialog::Rejected, {}}});
    ASSERT_EQ(shown.size(), 1);
    EXPECT_TRUE(shown[0].startsWith(QStringLiteral("save|Select destination for fingerprint|")) &&
                shown[0].endsWith(QStringLiteral("|Fingerprint Files (*.fnp)")))
        << shown[0].toStdString();
    EXPECT_EQ(CSettings::lastRecognizer(), before);
    EXPECT_EQ(window.currentPage(), page);

    // A copy among them is refused, naming both, before the destination is asked for.
    for (const char* name : {"p000.jpg", "p002.jpg"})
        ASSERT_TRUE(testutils::writeFile(m_photos.filePath(QString::fromLatin1(name)), "the same bytes"));
    relist(3);
    shown = clickNext({{QMessageBox::Ok, {}}});
    ASSERT_EQ(shown.size(), 1);
    EXPECT_TRUE(shown[0].contains(QStringLiteral("|Duplicate reference photos|")) &&
                shown[0].contains(QStringLiteral("p000.jpg")) && shown[0].contains(QStringLiteral("p002.jpg")))
        << shown[0].toStdString();

    // 200 pass without a question; 201 ask, and No keeps the page and all 201.
    touchPhotos(200);
    relist(200);
    shown = clickNext({{QDialog::Rejected, {}}});
    ASSERT_EQ(shown.size(), 1);
    EXPECT_TRUE(shown[0].startsWith(QStringLiteral("save|")));
    touchPhotos(201);
    relist(201);
    EXPECT_EQ(clickNext({{QMessageBox::No, {}}}),
              QStringList{QStringLiteral("question|Too many images|There are too many items for learning.\n"
                                         "Only first 200 images will be used.\n\nDo you want to continue?")});
    EXPECT_EQ(page->files().size(), 201);
    EXPECT_EQ(window.currentPage(), page);

    // Listing another folder remembers it at once.
    QTemporaryDir other;
    page->listFolder(QDir(other.path()), true);
    EXPECT_EQ(CSettings::lastTeachingPath().absolutePath(), QDir(other.path()).absolutePath());

    // The title's sizes follow the interface scale.
    const QString scaled = CChoosePathLearn::titleText(1.5);
    EXPECT_TRUE(scaled.contains(QStringLiteral("font-size: 30px; padding-top: 0px")));
    EXPECT_TRUE(scaled.contains(QStringLiteral("font-size: 25px; line-height: 31px")));
    EXPECT_TRUE(scaled.contains(QStringLiteral("<br>A minimum of 3 photos is required.</div></body></html>")));
}

TEST_F(LearnTest, ChartTicksAndImmediateRepaint)
{
    // Every photo up to 9, then every second, ..., so about ten ticks.
    const std::pair<int, int> steps[] = {{9, 1}, {3, 1}, {25, 2}, {200, 20}};
    for (const auto& [photos, step] : steps)
    {
        QVector<int> expected;
        for (int tick = step; tick <= photos; tick += step)
            expected << tick;
        EXPECT_EQ(CStatisticsDlg::tickPhotos(photos), expected) << photos;
    }
    // Below 1/1.2 the axis stretches to 1.2 × the largest value; above it the
    // scale is 0 … 1 with ticks up to 1.1.
    const struct
    {
        float max;
        double top;
        int ticks;
    } axes[] = {{0.5f, 0.6, 7}, {0.9f, 1.08, 11}, {2.0f, 1.1, 12}};
    for (const auto& a : axes)
    {
        EXPECT_NEAR(CStatisticsDlg::axisTop(a.max), a.top, 1e-6) << a.max;
        EXPECT_EQ(CStatisticsDlg::tickValues(a.max).size(), a.ticks) << a.max;
    }
    EXPECT_NEAR(CStatisticsDlg::pixelsPerUnit(0.5f, 300.0), 300.0 / 0.6, 1e-3);
    EXPECT_DOUBLE_EQ(CStatisticsDlg::pixelsPerUnit(0.9f, 300.0), 300.0);

    CStatisticsDlg chart(25);
    chart.show();
    QCoreApplication::processEvents();
    const int painted = chart.paintCount();
    chart.addValue(0.4f);
    EXPECT_EQ(chart.paintCount(), painted + 1) << "drawn before addValue returns";
    chart.addValue(0.2f);
    EXPECT_EQ(chart.points(), (QPolygonF(QVector<QPointF>{QPointF(1, 0.4f), QPointF(2, 0.2f)})));
    EXPECT_FLOAT_EQ(chart.maxValue(), 0.4f);
}

// A real run on simulated photos: the worker's signals in order, every photo
// marked as used, the result page showing the fingerprint. Pictured mid-run
// and on the result page; QUORVEX_SCREENSHOT_DIR keeps the pictures.
TEST_F(LearnTest, ARealRunLearnsInOrderAndTheResultPageShowsTheFingerprint)
{
    const int count = 12;
    const QFileInfoList photos = shootSeries(count, 60, QStringLiteral("IMG_%1.jpg"));
    const QFileInfo destination(m_out.filePath(QStringLiteral("camera.fnp")));
    const QDir folder(screenshotFolder(m_out));

    CMainWindow window(1.0);
    window.setStyleSheet(appStyleSheet(1.0));
    window.resize(1280, 760);
    window.show();
    // The order in which the worker's signals were sent, recorded as they leave it.
    QMutex mutex;
    QStringList sequence;
    auto* screen = new CLearnScr(photos, destination);
    auto record = [&](const QString& event) {
        QMutexLocker lock(&mutex);
        sequence << event;
    };
    QObject::connect(screen->worker(), &CLearnWorker::imageProcessingStarted,
                     [&](int index) { record(QStringLiteral("started(%1)").arg(index)); });
    QObject::connect(screen->worker(), &CLearnWorker::imageProcessed,
                     [&](int index, float) { record(QStringLiteral("finished(%1)").arg(index)); });
    QObject::connect(screen->worker(), &CLearnWorker::finished, [&](int index, bool success, const QString&) {
        record(QStringLiteral("done(%1,%2)").arg(index).arg(success));
    });
    window.pushPage(screen);
    EXPECT_TRUE(screen->isWorking() || screen->worker()->isDone());
    EXPECT_FALSE(child(screen, "btnNavigateHomeRight")->isVisible());

    // Mid-run: some photos learned, one in progress, the rest waiting.
    ASSERT_TRUE(testutils::waitFor([&] { return screen->statistics()->points().size() >= 4; }, 120000));
    const QImage running = window.grab().toImage();
    EXPECT_TRUE(running.save(folder.filePath(QStringLiteral("learn-running.png"))));
    ASSERT_TRUE(testutils::waitFor([&] { return qobject_cast<CLearnInfo*>(window.currentPage()) != nullptr; }, 120000));
    QCoreApplication::processEvents();
    const QImage result = window.grab().toImage();
    EXPECT_TRUE(result.save(folder.filePath(QStringLiteral("learn-result.png"))));
    EXPECT_NE(running, result);
    {
        QMutexLocker lock(&mutex);
        // The signals may have been connected just after the first announcement.
        if (!sequence.isEmpty() && sequence.first() != QStringLiteral("started(0)"))
            sequence.prepend(QStringLiteral("started(0)"));
        QStringList expected;
        for (int i = 0; i < count; ++i)
            expected << QStringLiteral("started(%1)").arg(i) << QStringLiteral("finished(%1)").arg(i);
        EXPECT_EQ(sequence, expected << QStringLiteral("done(%1,1)").arg(count));
    }
    EXPECT_FALSE(screen->isWorking());
    EXPECT_EQ(screen->statistics()->points().size(), count) << "the closing call adds nothing";
    for (int row = 0; row < count; ++row)
    {
        const QModelIndex index = screen->gallery()->imageModel()->index(row);
        EXPECT_EQ(index.data(CImageModel::ItemStateRole).value<CImageModel::State>(), CImageModel::SuccessVeryHigh);
        EXPECT_DOUBLE_EQ(index.data(CImageModel::ResultRole).value<qutils::CQuorvexAPI::SAnalysisResult>().probability, 100.0);
    }
    EXPECT_EQ(CSettings::currentFingerprint().absoluteFilePath(), destination.absoluteFilePath());

    auto* info = qobject_cast<CLearnInfo*>(window.currentPage());
    EXPECT_EQ(info->statistics(), screen->statistics()) << "the chart moves to the result page";
    EXPECT_EQ(info->fingerprintInfo()->valueText(CFingerprint::TrainingImagesCount), QString::number(count));
    EXPECT_EQ(info->fingerprintInfo()->valueText(CFingerprint::Path), QDir::toNativeSeparators(destination.absoluteFilePath()));
    EXPECT_EQ(info->fingerprintInfo()->valueText(CFingerprint::Width), QStringLiteral("1024"));

    // Home from the result page goes back to the intro page.
    child(info, "btnNavigateHomeRight")->click();
    EXPECT_EQ(window.currentPage(), static_cast<QWidget*>(window.introPage()));
}

// A refused second photo, unreadable or of another size: named with its
// reason, marked on its tile, and the page offers the way back.
TEST_F(LearnTest, ARefusedSecondPhotoIsNamedAndMarked)
{
    const QString broken = m_photos.filePath(QStringLiteral("b.jpg"));
    ASSERT_TRUE(testutils::writeFile(broken, "this is not a photo"));
    struct SCase
    {
        QString second;
        QString reason;
    };
    for (const SCase& c : {SCase{broken, QString()},
                           SCase{shoot(22, QStringLiteral("wide.jpg"), 1280, 720),
                                 QStringLiteral("Photos have different size\nRefused photo: wide.jpg\n"
                                                "It is 1280 × 720 pixels; a.jpg is 1024 × 768 pixels.")}})
    {
        QFileInfoList photos;
        photos << QFileInfo(shoot(20, QStringLiteral("a.jpg"))) << QFileInfo(c.second)
               << QFileInfo(shoot(21, QStringLiteral("c.jpg")));

        CScriptedDialogs script({{QMessageBox::Ok, {}}});
        CMainWindow window(1.0);
        auto* chooser = new QWidget;
        window.pushPage(chooser);
        auto* screen = new CLearnScr(photos, QFileInfo(m_out.filePath(QStringLiteral("x.fnp"))));
        window.pushPage(screen);
        ASSERT_TRUE(testutils::waitFor([&] { return CDialogScript::shown().size() == 1; }, 120000));
        const auto shown = CDialogScript::shown().first();
        EXPECT_EQ(shown.kind, QStringLiteral("warning"));
        EXPECT_EQ(shown.title, QStringLiteral("Error"));
        EXPECT_TRUE(shown.text.contains(QStringLiteral("\nRefused photo: %1").arg(QFileInfo(c.second).fileName())))
            << shown.text.toStdString();
        EXPECT_TRUE(c.reason.isEmpty() || shown.text == c.reason) << shown.text.toStdString();

        CImageModel* model = screen->gallery()->imageModel();
        QVector<int> states;
        for (int row = 0; row < 3; ++row)
            states << model->index(row).data(CImageModel::ItemStateRole).toInt();
        EXPECT_EQ(states, (QVector<int>{CImageModel::SuccessVeryHigh, CImageModel::Fail, CImageModel::Idle}));
        EXPECT_EQ(model->index(1).data(CImageModel::DescriptionRole).toString(),
                  QStringLiteral("<br />") + shown.text.toHtmlEscaped().replace(QLatin1Char('\n'), QStringLiteral("<br />")));
        EXPECT_FALSE(screen->isWorking());
        EXPECT_FALSE(child(screen, "btnNavigateHomeRight")->isHidden());
        EXPECT_TRUE(screen->statistics()->isHidden());
        EXPECT_EQ(child<QLabel>(screen, "learnScrTitle")->text(), QStringLiteral("Fingerprint x.fnp not created"));
        EXPECT_EQ(child<QLabel>(screen, "learnRefusal")->text(), shown.text);
        EXPECT_EQ(window.currentPage(), screen) << "the screen stays to show which photo failed";
        if (!c.reason.isEmpty() && qEnvironmentVariableIsSet("QUORVEX_SCREENSHOT_DIR"))
        {
            window.setStyleSheet(appStyleSheet(1.0));
            window.resize(1280, 800);
            window.show();
            QCoreApplication::processEvents();
            window.grab().save(QDir(screenshotFolder(m_out)).filePath(QStringLiteral("learn-refused.png")));
        }
        child(screen, "btnNavigateBackLeft")->click();
        EXPECT_EQ(window.currentPage(), chooser);
    }
}

TEST_F(LearnTest, ClosingWhileLearningShowsNoResultAndNoError)
{
    const QFileInfoList photos = shootSeries(3, 30, QStringLiteral("r%1.jpg"));
    CScriptedDialogs script({{QMessageBox::Ok, {}}});
    CMainWindow window(1.0);
    window.show();
    auto* screen = new CLearnScr(photos, QFileInfo(m_out.filePath(QStringLiteral("y.fnp"))));
    window.pushPage(screen);
    ASSERT_TRUE(screen->isWorking()) << "three photos take longer than this";
    window.close();
    EXPECT_TRUE(window.isClosing());
    EXPECT_FALSE(screen->isWorking()) << "the close waited for the engine";
    QCoreApplication::processEvents();
    EXPECT_EQ(window.currentPage(), screen) << "no result page";
    ASSERT_EQ(CDialogScript::shown().size(), 1);
    EXPECT_EQ(CDialogScript::shown().at(0).title, QStringLiteral("Please confirm"));
}

TEST_F(LearnTest, PropertiesPageFirstFillReloadAndDescription)
{
    const QString first = m_out.filePath(QStringLiteral("first.fnp"));
    ASSERT_EQ(CFingerprint::createFingerprint(shootSeries(3, 40, QStringLiteral("f%1.jpg")), QFileInfo(first), nullptr),
              qutils::CQuorvexAPI::Success);
    // A second file without a lens model and with a different NMSE text.
    qutils::CQuorvexAPI::EStatus status = qutils::CQuorvexAPI::Invalid;
    auto record = CFingerprint::load(QFileInfo(first), &status);
    ASSERT_TRUE(record);
    record->setProperty(CFingerprint::LensInfo, QString());
    record->setProperty(CFingerprint::Manufacturer, QString());
    const double nmse = record->property(CFingerprint::NMSE).toDouble();
    const QString second = m_out.filePath(QStringLiteral("second.fnp"));
    ASSERT_TRUE(record->save(QFileInfo(second), record->fingerprint()));

    CFingerprintInfo info;
    ASSERT_TRUE(info.setFingerprintFile(second));
    EXPECT_EQ(child<QLabel>(&info, "lbTitle")->text(), QStringLiteral("Fingerprint properties"));
    EXPECT_EQ(info.valueText(CFingerprint::LensInfo), QStringLiteral("unknown"));
    EXPECT_EQ(info.valueText(CFingerprint::Manufacturer), QStringLiteral("unknown"));
    EXPECT_EQ(info.valueText(CFingerprint::NMSE), QString::number(nmse, 'f', 3));
    EXPECT_EQ(info.valueText(CFingerprint::Description), QString()) << "never \"unknown\"";
    EXPECT_EQ(CSettings::lastRecognizer().absoluteFilePath(), QFileInfo(second).absoluteFilePath());
    const QList<QLabel*> names = info.findChildren<QLabel*>(QStringLiteral("fingerprintDescription"));
    const QList<QLabel*> values = info.findChildren<QLabel*>(QStringLiteral("fingerprintData"));
    ASSERT_EQ(names.size(), 10);
    ASSERT_EQ(values.size(), 10);
    EXPECT_EQ(names.first()->text(), CFingerprint::displayText(CFingerprint::NMSE) + QStringLiteral(":  "));

    // Under the real style sheet each name and its value start on the same line: both are laid
    // out from the row's top in the same font, so one-line texts get the same box.
    for (const double scale : {1.0, 1.5})
    {
        SCOPED_TRACE(scale);
        info.setStyleSheet(appStyleSheet(scale));
        info.resize(1400, 600);
        info.show();
        QCoreApplication::processEvents();
        for (int i = 0; i < names.size(); ++i)
        {
            if (values.at(i)->text().isEmpty())
                continue;
            SCOPED_TRACE(names.at(i)->text().toStdString());
            EXPECT_EQ(names.at(i)->y(), values.at(i)->y());
            EXPECT_EQ(names.at(i)->height(), values.at(i)->height());
            EXPECT_LT(names.at(i)->geometry().right(), values.at(i)->geometry().left()) << "a gap between them";
        }
        info.hide();
    }
    info.setStyleSheet(QString());

    // Filled again: plain texts, so the missing lens is now empty.
    ASSERT_TRUE(info.setFingerprintFile(second));
    EXPECT_EQ(info.valueText(CFingerprint::LensInfo), QString());
    EXPECT_EQ(info.valueText(CFingerprint::NMSE), QVariant(nmse).toString());

    // A file that cannot be loaded says so and keeps what was shown.
    bool loaded = true;
    const QStringList refused = shownWhile(
        {{QMessageBox::Ok, {}}}, [&] { loaded = info.setFingerprintFile(m_out.filePath(QStringLiteral("missing.fnp"))); });
    ASSERT_EQ(refused.size(), 1);
    EXPECT_TRUE(refused[0].endsWith(QStringLiteral("|Fingerprint cannot be loaded!\nmissing.fnp cannot be used as a "
                                                   "fingerprint: the file does not exist.")))
        << refused[0].toStdString();
    EXPECT_FALSE(loaded);
    EXPECT_EQ(info.valueText(CFingerprint::Path), QDir::toNativeSeparators(second));

    // The description editor writes the new text into the file; a cancelled
    // edit changes nothing.
    QPushButton* edit = child(&info, "editFingerprint");
    const QStringList shown = shownWhile({{QDialog::Accepted, QStringLiteral("Case 17, camera B")}}, [&] { edit->click(); });
    ASSERT_EQ(shown.size(), 1);
    EXPECT_TRUE(shown[0].startsWith(QStringLiteral("input|Fingerprint description|"))) << shown[0].toStdString();
    shownWhile({{QDialog::Rejected, {}}}, [&] { edit->click(); });
    EXPECT_EQ(info.valueText(CFingerprint::Description), QStringLiteral("Case 17, camera B"));
    auto reread = CFingerprint::load(QFileInfo(second), &status);
    ASSERT_TRUE(reread);
    EXPECT_EQ(reread->property(CFingerprint::Description).toString(), QStringLiteral("Case 17, camera B"));
}
