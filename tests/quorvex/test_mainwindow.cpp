// The main window: pages, the full-screen toggle and the close guard.
#include "chooseimagepathdlg.h"
#include "gallerywidget.h"
#include "helpdlg.h"
#include "imagemodel.h"
#include "intropagedlg.h"
#include "mainwindow.h"
#include "resources.h"
#include "startup.h"
#include "windowedstartup.h"
#include "workingpage.h"

#include "qcontrols/stylesheetmanager.h"
#include "qdialogs/progressdlg.h"
#include "qutils/appsettings.h"
#include "qutils/tasks.h"
#include "scriptedsteps.h"
#include "simcamera.h"
#include "testutils.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QLabel>
#include <QMessageBox>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBrowser>
#include <QThread>
#include <QTimer>
#include <QVBoxLayout>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

using qutils::CAppSettings;
using testutils::shownWhile;

namespace
{

class CBusyPage : public QWidget, public CWorkingPage
{
public:
    std::atomic<bool> working{true};
    std::atomic<int> cancelled{0};
    bool isWorking() const override { return working.load(); }
    void cancelWork() override { ++cancelled; }
};

class MainWindowTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        quorvex::initResources();
        CAppSettings::setConfigFolder(m_dir.path());
    }
    void TearDown() override
    {
        CAppSettings::setConfigFolder(QString());
        CHelpDlg::setHelpFolder(QString());
    }
    QTemporaryDir m_dir;
};

bool closeWindow(CMainWindow& window)
{
    QCloseEvent event;
    QCoreApplication::sendEvent(&window, &event);
    return event.isAccepted();
}

QPushButton* button(QWidget* page, const char* name)
{
    return page->findChild<QPushButton*>(QString::fromLatin1(name));
}

} // namespace

TEST_F(MainWindowTest, IntroPageHasItsWidgetsAndPagesStack)
{
    CMainWindow window(1.0);
    CIntroPageDlg* intro = window.introPage();
    for (const char* name : {"btnAnalyze", "btnLearn", "btnHelp", "btnReactivate", "btnUpdate"})
        EXPECT_NE(button(intro, name), nullptr) << name;
    auto* version = intro->findChild<QLabel*>(QStringLiteral("versionLabel"));
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(version->text(), QStringLiteral("2.0.0 - 64-bit"));
    EXPECT_FALSE(intro->findChild<QLabel*>(QStringLiteral("introImage"))->pixmap(Qt::ReturnByValue).isNull());

    auto* page = new QWidget;
    window.pushPage(page);
    EXPECT_EQ(window.currentPage(), page);
    window.pushPage(new QWidget);
    window.showIntroPage();
    EXPECT_EQ(window.currentPage(), intro);
    window.popPage();
    EXPECT_EQ(window.currentPage(), intro) << "the intro page always stays";

    // Activation and update answer plainly.
    const QStringList shown = shownWhile({{QMessageBox::Ok, {}}, {QMessageBox::Ok, {}}}, [&] {
        button(intro, "btnReactivate")->click();
        button(intro, "btnUpdate")->click();
    });
    ASSERT_EQ(shown.size(), 2);
    EXPECT_TRUE(shown[0].contains(QStringLiteral("always active")));
    EXPECT_TRUE(shown[1].contains(QStringLiteral("Options/UpdateParameters")));
}

TEST_F(MainWindowTest, HelpPageSaysWhenItCannotLoadTheIndex)
{
    // Without pages beside the test program or under share, the folder beside it is named.
    EXPECT_EQ(CHelpDlg::helpFolder(), QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("Help")));
    CHelpDlg::setHelpFolder(m_dir.path());
    CMainWindow window(1.0);
    const QStringList shown = shownWhile({{QMessageBox::Ok, {}}}, [&] {
        button(window.introPage(), "btnHelp")->click();
        QCoreApplication::processEvents();
    });
    ASSERT_EQ(shown.size(), 1);
    EXPECT_TRUE(shown[0].endsWith(QStringLiteral("|Help file cannot be loaded."))) << shown[0].toStdString();
    auto* help = qobject_cast<CHelpDlg*>(window.currentPage());
    ASSERT_NE(help, nullptr);
    button(help, "btnNavigateBack")->click();
    EXPECT_EQ(window.currentPage(), window.introPage());
}

TEST_F(MainWindowTest, FullScreenToggleIsStored)
{
    CMainWindow window(1.0);
    window.show();
    window.onBtnFullScreen();
    EXPECT_TRUE(CAppSettings::boolOption(CAppSettings::EOption::FullScreenMode));
    window.onBtnFullScreen();
    EXPECT_FALSE(CAppSettings::boolOption(CAppSettings::EOption::FullScreenMode));
}

TEST_F(MainWindowTest, CloseGuardAsksWaitsAndDoesNotAskTwice)
{
    CMainWindow window(1.0);
    auto* page = new CBusyPage;
    window.pushPage(page);
    bool closed = true;
    EXPECT_EQ(shownWhile({{QMessageBox::Cancel, {}}}, [&] { closed = closeWindow(window); }),
              QStringList{QStringLiteral("confirm|Please confirm|Images are still being processed.\n"
                                         "Are you sure you want to quit?")});
    EXPECT_FALSE(closed) << "cancelled: the window stays";
    EXPECT_TRUE(page->working.load()) << "the work keeps running";
    EXPECT_EQ(page->cancelled.load(), 0);
    EXPECT_FALSE(window.isClosing());

    // The work ends a little later; the window waits for it, never kills it.
    QTimer::singleShot(200, [page] { page->working = false; });
    shownWhile({{QMessageBox::Ok, {}}}, [&] { closed = closeWindow(window); });
    EXPECT_TRUE(closed);
    EXPECT_FALSE(page->working.load());
    EXPECT_EQ(page->cancelled.load(), 1);
    EXPECT_TRUE(window.isClosing());

    page->working = true;
    EXPECT_TRUE(shownWhile({}, [&] { closed = closeWindow(window); }).isEmpty()) << "a second close does not ask";
    EXPECT_TRUE(closed);
}

// Runs only in the child started below: holds the windowed mode's lock.
TEST(WindowedChild, DISABLED_HoldLock)
{
    CInstanceLock lock(qEnvironmentVariable("QX_LOCK_PATH"));
    ASSERT_TRUE(lock.tryLock());
    std::fputs("locked\n", stdout);
    std::fflush(stdout);
    QThread::sleep(30);
}

TEST_F(MainWindowTest, SecondInstanceIsRefusedWithItsMessage)
{
    const QString path = m_dir.filePath(QStringLiteral("VeltranoQuorvex.mtx.lock"));
    QProcess first;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QX_LOCK_PATH"), path);
    first.setProcessEnvironment(env);
    first.start(QCoreApplication::applicationFilePath(),
                {QStringLiteral("--gtest_also_run_disabled_tests"), QStringLiteral("--gtest_filter=WindowedChild.*")});
    QByteArray output;
    while (!output.contains("locked") && first.waitForReadyRead(30000))
        output += first.readAll();
    ASSERT_TRUE(output.contains("locked"));
    CInstanceLock second(path);
    bool acquired = true;
    const QStringList shown =
        shownWhile({{QMessageBox::Ok, {}}}, [&] { acquired = acquireSingleInstance(second, QStringLiteral("Quorvex")); });
    EXPECT_FALSE(acquired);
    ASSERT_EQ(shown.size(), 1);
    EXPECT_TRUE(shown[0].endsWith(QStringLiteral(
        "|Error!|Only one instance of Quorvex is allowed. Wait until the previous one is stopped.")))
        << shown[0].toStdString();
    first.kill();
    first.waitForFinished(30000);
    CInstanceLock later(path);
    EXPECT_TRUE(acquireSingleInstance(later, QStringLiteral("Quorvex"))) << "free again once the first has gone";
}

// Renders the intro page (at scale 1 and 1.5), the help page, a folder page
// and a progress dialog with the real style sheet; QUORVEX_SCREENSHOT_DIR
// keeps the pictures.
TEST_F(MainWindowTest, ScreensRenderWithTheStyleSheet)
{
    const QDir folder(qEnvironmentVariableIsSet("QUORVEX_SCREENSHOT_DIR") ? qEnvironmentVariable("QUORVEX_SCREENSHOT_DIR")
                                                                          : m_dir.path());
    QDir().mkpath(folder.path());
    auto save = [&](QWidget& widget, const char* name) {
        const QImage image = widget.grab().toImage();
        EXPECT_FALSE(image.isNull()) << name;
        // Something was drawn: many colours, not a blank background.
        QSet<QRgb> colours;
        for (int y = 0; y < image.height(); y += 4)
            for (int x = 0; x < image.width(); x += 4)
                colours.insert(image.pixel(x, y));
        EXPECT_GT(colours.size(), 8) << name;
        EXPECT_TRUE(image.save(folder.filePath(QString::fromLatin1(name))));
    };
    for (const double scale : {1.5, 1.0})
    {
        CMainWindow window(scale);
        window.setStyleSheet(qcontrols::CStyleSheetManager::load(quorvex::styleSheetResourcePath(),
                                                                 quorvex::styleConstantsResourcePath(), scale));
        window.resize(static_cast<int>(1200 * scale), static_cast<int>(740 * scale));
        window.show();
        QCoreApplication::processEvents();
        save(window, scale == 1.0 ? "intro.png" : "intro-scale-1.5.png");
        if (scale != 1.0)
            continue;

        // The help pages are found and shown; Back leads home.
        CHelpDlg::setHelpFolder(QStringLiteral(QUORVEX_HELP_SOURCE_DIR));
        EXPECT_TRUE(shownWhile({}, [&] {
                        button(window.introPage(), "btnHelp")->click();
                        QCoreApplication::processEvents();
                    }).isEmpty());
        auto* help = qobject_cast<CHelpDlg*>(window.currentPage());
        ASSERT_NE(help, nullptr);
        ASSERT_NE(button(help, "btnNavigateHome"), nullptr);
        EXPECT_TRUE(help->findChild<QTextBrowser*>()->toPlainText().contains(QStringLiteral("Learn")));
        save(window, "help.png");
        button(help, "btnNavigateBack")->click();
        EXPECT_EQ(window.currentPage(), window.introPage());

        // A folder page: simulated photos listed into the gallery, one in the preview.
        QTemporaryDir photos;
        const camsim::Camera camera(testutils::simCamera(7));
        for (int i = 0; i < 14; ++i)
            testutils::shoot(camera, 100 + i, photos.filePath(QStringLiteral("IMG_%1.jpg").arg(1001 + i)));
        auto* page = new QWidget;
        auto* layout = new QVBoxLayout(page);
        auto* chooser = new CChooseImagePathDlg(page);
        auto* gallery = new CGalleryWidget(page);
        layout->addWidget(chooser);
        layout->addWidget(gallery, 1);
        chooser->setGallery(gallery);
        window.pushPage(page);
        chooser->listFolder(QDir(photos.path()), true);
        ASSERT_TRUE(testutils::waitFor([&] { return gallery->imageModel()->rowCount() == 14; }));
        const QFileInfoList files = gallery->imageModel()->files();
        for (int row = 0; row < files.size(); ++row)
            gallery->model()->index(row, 0).data(CImageModel::ImageRole);
        ASSERT_TRUE(testutils::waitFor([&] {
            return std::all_of(files.begin(), files.end(), [](const QFileInfo& file) { return CImageModel::isThumbnailCached(file); });
        }));
        gallery->setCurrentIndex(gallery->model()->index(4, 0));
        QCoreApplication::processEvents();
        EXPECT_TRUE(gallery->previewWidget()->isVisible());
        // The pointer resting on a tile opens its actions row.
        ASSERT_TRUE(QMetaObject::invokeMethod(gallery, "entered", Q_ARG(QModelIndex, gallery->model()->index(1, 0))));
        QTest::qWait(400);
        save(window, "folder-page.png");
        gallery->imageModel()->stopThread();
    }
    auto task = qutils::makeTask<qutils::CFunctionTask>([](qutils::CTask* t) {
        t->setProgressRange(0, 100);
        t->setProgressPos(40);
        while (!t->isCancelled())
            QThread::msleep(10);
    });
    QWidget parent;
    parent.resize(1200, 740);
    parent.setStyleSheet(qcontrols::CStyleSheetManager::styleSheet());
    const auto dialog = qdialogs::CProgressWidget::createDialog(&parent, QStringLiteral("Creating PDF report..."),
                                                                QStringLiteral("Processing"), task);
    dialog->open();
    ASSERT_TRUE(testutils::waitFor([&] { return dialog->findChild<QProgressBar*>()->value() == 40; }));
    save(*dialog, "progress.png");
    task->cancel();
    ASSERT_TRUE(testutils::waitFor([&] { return !dialog->isVisible(); }));
}
