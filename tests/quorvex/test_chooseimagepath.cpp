// The folder page: listing behind the progress dialog into the gallery.
#include "chooseimagepathdlg.h"
#include "gallerywidget.h"
#include "imagemodel.h"

#include "qutils/appsettings.h"
#include "scriptedsteps.h"
#include "testfiles.h"
#include "testutils.h"

#include <QApplication>
#include <QCheckBox>
#include <QDialog>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <atomic>

#include <sys/stat.h>

namespace
{

class CRememberingPage : public CChooseImagePathDlg
{
public:
    QStringList stored;

protected:
    void storeDirectory(const QDir& dir) override { stored.append(dir.absolutePath()); }
};

class ChooseImagePathTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        qutils::CAppSettings::setConfigFolder(m_config.path());
        for (const QString& name : {QStringLiteral("a.jpg"), QStringLiteral("B.JPG"), QStringLiteral("c.png"),
                                    QStringLiteral("notes.txt"), QStringLiteral("sub/d.tif")})
        {
            QDir().mkpath(QFileInfo(m_dir.filePath(name)).absolutePath());
            ASSERT_TRUE(testutils::writeFile(m_dir.filePath(name)));
        }
    }
    void TearDown() override { qutils::CAppSettings::setConfigFolder(QString()); }

    QTemporaryDir m_config;
    QTemporaryDir m_dir;
};

} // namespace

TEST_F(ChooseImagePathTest, ListsIntoTheGalleryWithAndWithoutSubfolders)
{
    CRememberingPage page;
    CGalleryWidget gallery;
    auto* count = page.findChild<QLabel*>(QStringLiteral("imagesCount"));
    ASSERT_NE(count, nullptr);
    EXPECT_EQ(count->text(), QStringLiteral("Photos found: 0"));

    page.listFolder(QDir(m_dir.path()), true);
    EXPECT_TRUE(page.files().isEmpty()) << "no gallery yet: nothing is listed";

    page.setGallery(&gallery);
    page.listFolder(QDir(m_dir.path()), true);
    ASSERT_TRUE(testutils::waitFor([&] { return gallery.imageModel()->rowCount() == 3; }));
    EXPECT_EQ(page.files().size(), 3);
    EXPECT_EQ(count->text(), QStringLiteral("Photos found: 3"));
    // By name as people read it, not by the file system's or the code points' order.
    QStringList shown;
    for (int row = 0; row < gallery.model()->rowCount(); ++row)
        shown << gallery.model()->index(row, 0).data(CImageModel::FileNameRole).toString();
    EXPECT_EQ(shown, (QStringList{QStringLiteral("a.jpg"), QStringLiteral("B.JPG"), QStringLiteral("c.png")}));
    EXPECT_EQ(page.findChild<QLineEdit*>(QStringLiteral("editPath"))->text(), QDir::toNativeSeparators(m_dir.path()));
    EXPECT_EQ(page.stored, QStringList{QDir(m_dir.path()).absolutePath()});

    // The box writes the shared setting and lists again, now with the subfolder.
    page.findChild<QCheckBox*>()->setChecked(true);
    ASSERT_TRUE(testutils::waitFor([&] { return gallery.imageModel()->rowCount() == 4; }));
    EXPECT_EQ(qutils::CAppSettings::value(QStringLiteral("analyzeSubdirs"), 0), 1);
    EXPECT_EQ(count->text(), QStringLiteral("Photos found: 4"));

    // A pipe with a photo's name is not opened, yet named with the reason.
    ASSERT_EQ(::mkfifo(QFile::encodeName(m_dir.filePath(QStringLiteral("sub/e.jpg"))).constData(), 0600), 0);
    page.listFolder(QDir(m_dir.path()), false);
    ASSERT_TRUE(testutils::waitFor([&] { return count->text() == QStringLiteral("Photos found: 4 (1 cannot be analyzed)"); }));
    ASSERT_EQ(page.refusedFiles().size(), 1);
    EXPECT_TRUE(testutils::waitFor([&] { return count->toolTip().contains(QStringLiteral("e.jpg: not a regular file")); }));

    // A typed path that does not exist changes nothing but the count.
    page.listFolder(QDir(m_dir.filePath(QStringLiteral("missing"))), false);
    EXPECT_EQ(count->text(), QStringLiteral("Photos found: 0"));
    EXPECT_EQ(page.files().size(), 4);
    EXPECT_EQ(gallery.imageModel()->rowCount(), 4);
}

TEST_F(ChooseImagePathTest, FolderChooserListsTheChosenFolderAndCancelChangesNothing)
{
    CChooseImagePathDlg page;
    CGalleryWidget gallery;
    page.setGallery(&gallery);
    QPushButton* choose = page.findChild<QPushButton*>(QStringLiteral("btnChooseDir"));
    testutils::shownWhile({{QDialog::Rejected, QString()}}, [&] { choose->click(); });
    EXPECT_TRUE(page.files().isEmpty());
    const QStringList shown =
        testutils::shownWhile({{QDialog::Accepted, m_dir.filePath(QStringLiteral("sub"))}}, [&] { choose->click(); });
    ASSERT_EQ(shown.size(), 1);
    EXPECT_TRUE(shown[0].startsWith(QStringLiteral("folder|")));
    ASSERT_TRUE(testutils::waitFor([&] { return gallery.imageModel()->rowCount() == 1; }));
    EXPECT_EQ(page.files().first().fileName(), QStringLiteral("d.tif"));
}

namespace
{

// Holds the listing on the worker thread until the test has pressed Cancel,
// so the cancel reliably lands while the folder is being listed.
class CHeldPage : public CChooseImagePathDlg
{
public:
    std::atomic<bool> entered{false};
    std::atomic<bool> release{false};

protected:
    void storeDirectory(const QDir&) override
    {
        entered = true;
        for (int i = 0; i < 3000 && !release; ++i)
            QThread::msleep(10);
    }
};

} // namespace

TEST_F(ChooseImagePathTest, CancelLeavesAnEmptyListAndNoPhotosFound)
{
    CHeldPage page;
    CGalleryWidget gallery;
    page.setGallery(&gallery);
    page.release = true;
    page.listFolder(QDir(m_dir.path()), true);
    ASSERT_TRUE(testutils::waitFor([&] { return gallery.imageModel()->rowCount() == 3; }));
    page.entered = false;
    page.release = false;

    bool clicked = false;
    QTimer poll;
    poll.setInterval(10);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (!page.entered || clicked)
            return;
        for (QWidget* top : QApplication::topLevelWidgets())
        {
            auto* cancel = top->findChild<QPushButton*>(QStringLiteral("cancelButton"));
            if (top->isVisible() && cancel && cancel->isVisible())
            {
                cancel->click();
                clicked = true;
                page.release = true;
                return;
            }
        }
    });
    poll.start();
    page.listFolder(QDir(m_dir.path()), false);
    poll.stop();
    page.release = true;

    EXPECT_TRUE(clicked) << "the listing dialog offered no Cancel";
    EXPECT_TRUE(page.files().isEmpty());
    ASSERT_TRUE(testutils::waitFor([&] { return gallery.imageModel()->rowCount() == 0; }));
    EXPECT_EQ(page.findChild<QLabel*>(QStringLiteral("imagesCount"))->text(), QStringLiteral("Photos found: 0"));
}
