// The compiled-in resources (icons, busy-indicator frames, style sheet and its
// constants) and the help pages installed beside the program.

#include "resources.h"

#include "qcontrols/stylesheetmanager.h"
#include "qutils/stylesheetsparser.h"

#include <QApplication>
#include <QCheckBox>
#include <QColor>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QFrame>
#include <QHeaderView>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QMessageBox>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QSet>
#include <QStringList>
#include <QTemporaryDir>
#include <QTreeView>
#include <QUrl>
#include <QVBoxLayout>
#include <QXmlStreamReader>

#include <gtest/gtest.h>

namespace
{

class ResourcesTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { quorvex::initResources(); }
};

// Every icon and picture the program's pages name.
const QStringList& namedIcons()
{
    static const QStringList icons = {
        QStringLiteral(":/Quorvex/next.png"),        QStringLiteral(":/Quorvex/back.png"),
        QStringLiteral(":/Quorvex/home.png"),        QStringLiteral(":/Quorvex/help.png"),
        QStringLiteral(":/Quorvex/reactivate.png"),  QStringLiteral(":/Quorvex/update.png"),
        QStringLiteral(":/Quorvex/save.png"),        QStringLiteral(":/Quorvex/cancel.png"),
        QStringLiteral(":/Quorvex/fingerprint.png"), QStringLiteral(":/Quorvex/description.png"),
        QStringLiteral(":/Quorvex/maximize.png"),    QStringLiteral(":/Quorvex/restorewin.png"),
        QStringLiteral(":/Quorvex/close-icon.png"),  QStringLiteral(":/Quorvex/introImage2.png"),
        QStringLiteral(":/Quorvex/check.png"),
    };
    return icons;
}

// Share of pixels that are not fully transparent.
double coverage(const QImage& image)
{
    const QImage argb = image.convertToFormat(QImage::Format_ARGB32);
    qint64 drawn = 0;
    for (int y = 0; y < argb.height(); ++y)
        for (int x = 0; x < argb.width(); ++x)
            if (qAlpha(argb.pixel(x, y)) > 0)
                ++drawn;
    return double(drawn) / double(argb.width() * argb.height());
}

void expectDrawnPicture(const QString& path, int minSide, int maxSide)
{
    SCOPED_TRACE(path.toStdString());
    ASSERT_TRUE(QFile::exists(path));
    const QPixmap pixmap(path);
    ASSERT_FALSE(pixmap.isNull());
    EXPECT_GE(pixmap.width(), minSide);
    EXPECT_GE(pixmap.height(), minSide);
    EXPECT_LE(pixmap.width(), maxSide);
    EXPECT_LE(pixmap.height(), maxSide);
    // Something is drawn, and it is not a filled square.
    const double drawn = coverage(pixmap.toImage());
    EXPECT_GT(drawn, 0.02);
    EXPECT_LT(drawn, 0.95);
}

TEST_F(ResourcesTest, EveryNamedIconIsAPicture)
{
    for (const QString& icon : namedIcons())
        expectDrawnPicture(icon, 32, 1024);
}

TEST_F(ResourcesTest, BusyIndicatorHasEightTurnedFrames)
{
    QList<QImage> frames;
    for (int i = 0; i < 8; ++i)
    {
        const QString path = QStringLiteral(":/qcontrols/loading%1.png").arg(i);
        expectDrawnPicture(path, 30, 256);
        frames.append(QImage(path).convertToFormat(QImage::Format_ARGB32));
    }
    ASSERT_EQ(frames.size(), 8);
    // Each frame differs from the one before it: the spinner turns.
    for (int i = 1; i < frames.size(); ++i)
        EXPECT_NE(frames.at(i), frames.at(i - 1)) << "frame " << i;
    // Eight turns of 45 degrees come back to the start: frame 0 turned by 90
    // degrees equals frame 2.
    const QImage turned = frames.at(0).transformed(QTransform().rotate(90));
    const QImage& frame2 = frames.at(2);
    ASSERT_EQ(turned.size(), frame2.size());
    int differing = 0;
    for (int y = 0; y < turned.height(); ++y)
        for (int x = 0; x < turned.width(); ++x)
            if (qAbs(qAlpha(turned.pixel(x, y)) - qAlpha(frame2.pixel(x, y))) > 40)
                ++differing;
    EXPECT_LT(differing, turned.width() * turned.height() / 100);
}

// ---- Style sheet ----------------------------------------------------------

QStringList g_warnings;

void collectWarnings(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    // The offscreen platform reports that it cannot pass size hints to a
    // window manager; that says nothing about the style sheet.
    if (message.contains(QStringLiteral("propagateSizeHints")))
        return;
    if (type != QtDebugMsg && type != QtInfoMsg)
        g_warnings.append(message);
}

qutils::CStyleSheetsParser::Constants resolvedConstants()
{
    qutils::CStyleSheetsParser parser;
    parser.readConstants(quorvex::styleConstantsResourcePath());
    return parser.resolvedConstants();
}

// The constants as written, before references to other constants are resolved.
qutils::CStyleSheetsParser::Constants writtenConstants()
{
    qutils::CStyleSheetsParser parser;
    parser.readConstants(quorvex::styleConstantsResourcePath());
    return parser.constants();
}

QString loadSheet(double scale)
{
    return qcontrols::CStyleSheetManager::load(quorvex::styleSheetResourcePath(),
                                               quorvex::styleConstantsResourcePath(), scale);
}

TEST_F(ResourcesTest, StyleSheetAndConstantsAreCompiledIn)
{
    EXPECT_TRUE(QFile::exists(quorvex::styleSheetResourcePath()));
    EXPECT_TRUE(QFile::exists(quorvex::styleConstantsResourcePath()));
    EXPECT_TRUE(QFile::exists(QStringLiteral(":/Quorvex/helpStyle.css")));
    const auto constants = resolvedConstants();
    EXPECT_GE(constants.size(), 10);
    EXPECT_TRUE(constants.contains(QStringLiteral("COLOR_ACCENT")));
    EXPECT_TRUE(constants.value(QStringLiteral("FONT_FAMILY")).contains(QStringLiteral("sans-serif")));
}

TEST_F(ResourcesTest, StyleSheetLoadsWithoutLeftoverConstants)
{
    const auto constants = resolvedConstants();
    for (const double scale : {1.0, 1.5})
    {
        SCOPED_TRACE(scale);
        QString sheet;
        ASSERT_NO_THROW(sheet = loadSheet(scale));
        ASSERT_FALSE(sheet.isEmpty());
        EXPECT_EQ(qcontrols::CStyleSheetManager::styleSheet(), sheet);
        for (auto it = constants.cbegin(); it != constants.cend(); ++it)
            EXPECT_EQ(qutils::CStyleSheetsParser::findConstant(sheet, it.key()), -1)
                << "constant left in the sheet: " << it.key().toStdString();
        // Every constant is used by the sheet or by another constant.
        const auto written = writtenConstants();
        const QString raw = [] {
            QFile file(quorvex::styleSheetResourcePath());
            return file.open(QIODevice::ReadOnly | QIODevice::Text) ? QString::fromUtf8(file.readAll())
                                                                     : QString();
        }();
        for (auto it = constants.cbegin(); it != constants.cend(); ++it)
        {
            bool used = qutils::CStyleSheetsParser::findConstant(raw, it.key()) >= 0;
            for (auto other = written.cbegin(); !used && other != written.cend(); ++other)
                used = other.key() != it.key() &&
                       qutils::CStyleSheetsParser::findConstant(other.value(), it.key()) >= 0;
            EXPECT_TRUE(used) << "unused constant: " << it.key().toStdString();
        }
    }
    // The folder page's rules scale with the interface.
    const QString scaled = loadSheet(1.5);
    EXPECT_TRUE(scaled.contains(QStringLiteral("min-width: 450px")));
    EXPECT_TRUE(scaled.contains(QStringLiteral("font-size: 27px")));
    qcontrols::CStyleSheetManager::clear();
}

QWidget* addNamed(QWidget* widget, const char* name, QLayout* layout)
{
    widget->setObjectName(QString::fromLatin1(name));
    layout->addWidget(widget);
    return widget;
}

const char* const kTileStates[] = {"normal",        "success_very_high", "success_high",
                                   "success_medium", "success_low",       "fail"};

TEST_F(ResourcesTest, QtAcceptsTheSheetWithoutWarnings)
{
    for (const double scale : {1.0, 1.5})
    {
        SCOPED_TRACE(scale);
        const QString sheet = loadSheet(scale);
        ASSERT_FALSE(sheet.isEmpty());

        g_warnings.clear();
        const QtMessageHandler previous = qInstallMessageHandler(collectWarnings);
        {
            QMainWindow window;
            window.setStyleSheet(sheet);
            auto* central = new QWidget(&window);
            auto* layout = new QVBoxLayout(central);
            window.setCentralWidget(central);
            for (const char* name : {"btnAnalyze", "btnLearn", "btnHelp", "btnReactivate", "btnUpdate",
                                     "btnChooseDir", "btnNavigateHome", "btnNavigateSaveReport",
                                     "btnNavigateCancel", "btnNavigateNext"})
                addNamed(new QPushButton(QStringLiteral("Button")), name, layout);
            for (const char* name : {"versionLabel", "introImage", "imagesCount", "lbTitle", "fingerprintHeader",
                                     "fingerprintDescription", "fingerprintData", "progressLabel",
                                     "titleLabel", "pathLabel"})
                addNamed(new QLabel(QStringLiteral("Text")), name, layout);
            addNamed(new QLineEdit(), "editPath", layout);
            addNamed(new QCheckBox(QStringLiteral("Include subfolders")), "fingerprintSettings", layout);
            auto* bar = new QProgressBar();
            bar->setRange(0, 10);
            bar->setValue(4);
            layout->addWidget(bar);
            for (const char* state : kTileStates)
            {
                QWidget* tile = addNamed(new QFrame(), "content", layout);
                tile->setProperty("state", QString::fromLatin1(state));
            }
            window.resize(900, 1400);
            window.show();
            QApplication::processEvents();
            (void)window.grab();

            QMessageBox box(QMessageBox::Question, QStringLiteral("Please confirm"),
                            QStringLiteral("Are you sure?"), QMessageBox::Yes | QMessageBox::No, &window);
            box.show();
            QApplication::processEvents();
            (void)box.grab();
            box.hide();
        }
        qInstallMessageHandler(previous);
        EXPECT_TRUE(g_warnings.isEmpty()) << g_warnings.join(QLatin1Char('\n')).toStdString();
    }
    qcontrols::CStyleSheetManager::clear();
}

TEST_F(ResourcesTest, WarningCollectorSeesABrokenSheet)
{
    // The check above is only worth something if a sheet Qt rejects is noticed.
    g_warnings.clear();
    const QtMessageHandler previous = qInstallMessageHandler(collectWarnings);
    {
        QLabel label(QStringLiteral("Text"));
        label.setStyleSheet(QStringLiteral("QLabel { color: COLOR_TEXT; "));
        label.show();
        QApplication::processEvents();
        (void)label.grab();
    }
    qInstallMessageHandler(previous);
    EXPECT_FALSE(g_warnings.isEmpty());
}

TEST_F(ResourcesTest, RulesReachTheNamedWidgets)
{
    const QString sheet = loadSheet(1.0);
    const auto constants = resolvedConstants();
    QWidget page;
    page.setStyleSheet(sheet);
    auto* layout = new QVBoxLayout(&page);
    auto* count = static_cast<QLabel*>(addNamed(new QLabel(QStringLiteral("Photos found: 0")), "imagesCount", layout));
    auto* edit = static_cast<QLineEdit*>(addNamed(new QLineEdit(), "editPath", layout));
    QList<QFrame*> tiles;
    for (const char* state : kTileStates)
    {
        auto* tile = new QFrame();
        tile->setObjectName(QStringLiteral("content"));
        tile->setProperty("state", QString::fromLatin1(state));
        tile->setFixedSize(60, 40);
        layout->addWidget(tile);
        tiles.append(tile);
    }
    page.show();
    QApplication::processEvents();

    count->ensurePolished();
    EXPECT_EQ(count->palette().color(QPalette::WindowText), QColor(QStringLiteral("#6f6f6f")));
    EXPECT_EQ(count->font().pixelSize(), 18);
    EXPECT_GE(edit->minimumWidth(), 300);
    EXPECT_GE(edit->minimumHeight(), 22);

    // Each result class frames its tile in its own colour; the tile stays plain.
    const QMap<QString, QString> stateColour = {
        {QStringLiteral("normal"), QStringLiteral("COLOR_BORDER")},
        {QStringLiteral("success_very_high"), QStringLiteral("COLOR_RESULT_VERY_HIGH")},
        {QStringLiteral("success_high"), QStringLiteral("COLOR_RESULT_HIGH")},
        {QStringLiteral("success_medium"), QStringLiteral("COLOR_RESULT_MEDIUM")},
        {QStringLiteral("success_low"), QStringLiteral("COLOR_RESULT_LOW")},
        {QStringLiteral("fail"), QStringLiteral("COLOR_RESULT_FAIL")},
    };
    const QColor plain(constants.value(QStringLiteral("COLOR_SURFACE_RAISED")).trimmed());
    QSet<QRgb> seen;
    for (QFrame* tile : tiles)
    {
        const QString state = tile->property("state").toString();
        SCOPED_TRACE(state.toStdString());
        const QColor expected(constants.value(stateColour.value(state)).trimmed());
        ASSERT_TRUE(expected.isValid());
        const QImage image = tile->grab().toImage();
        const QColor edge = image.pixelColor(0, image.height() / 2);
        EXPECT_EQ(edge.rgb(), expected.rgb());
        EXPECT_EQ(image.pixelColor(image.width() / 2, image.height() / 2).rgb(), plain.rgb());
        seen.insert(edge.rgb());
    }
    EXPECT_EQ(seen.size(), tiles.size());
    qcontrols::CStyleSheetManager::clear();
}

// Qt's own file dialog under the sheet: its list, header and check boxes take
// the sheet's dark surfaces, so the light text stays readable.
// QUORVEX_SCREENSHOT_DIR keeps a picture of it.
TEST_F(ResourcesTest, FileDialogUnderTheSheetIsReadable)
{
    const auto constants = resolvedConstants();
    const auto colour = [&](const char* name) { return QColor(constants.value(QString::fromLatin1(name)).trimmed()); };
    QTemporaryDir folder;
    for (const char* name : {"IMG_0001.JPG", "IMG_0002.JPG", "reference.fnp"})
    {
        QFile file(folder.filePath(QString::fromLatin1(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    }
    QWidget parent;
    parent.setStyleSheet(loadSheet(1.0));
    QFileDialog dialog(&parent, QStringLiteral("Select fingerprint file"), folder.path());
    dialog.setOption(QFileDialog::DontUseNativeDialog);
    dialog.setViewMode(QFileDialog::Detail);
    dialog.resize(800, 500);
    auto* check = new QCheckBox(QStringLiteral("Checked"), &parent);
    check->setChecked(true);
    dialog.show();
    QApplication::processEvents();
    QTreeView* view = dialog.findChild<QTreeView*>(QStringLiteral("treeView"));
    ASSERT_TRUE(view);
    const QImage shot = dialog.grab().toImage();
    if (qEnvironmentVariableIsSet("QUORVEX_SCREENSHOT_DIR"))
        shot.save(QDir(qEnvironmentVariable("QUORVEX_SCREENSHOT_DIR")).filePath(QStringLiteral("file-dialog.png")));

    // Empty parts of the list and of the header.
    const QPoint listSpot = view->viewport()->mapTo(&dialog, QPoint(view->viewport()->width() - 4, view->viewport()->height() - 4));
    QHeaderView* header = view->header();
    const QPoint headerSpot = header->mapTo(&dialog, QPoint(header->width() - 3, header->height() / 2));
    const struct
    {
        const char* what;
        QColor seen;
        QColor expected;
    } cases[] = {
        {"list", shot.pixelColor(listSpot), colour("COLOR_SURFACE")},
        {"header", shot.pixelColor(headerSpot), colour("COLOR_SURFACE_RAISED")},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.seen.name().toStdString(), c.expected.name().toStdString()) << c.what;
    // The ticked box is filled with the accent around its tick.
    const QImage box = check->grab().toImage();
    int accent = 0;
    for (int y = 0; y < box.height(); ++y)
        for (int x = 0; x < box.width(); ++x)
            accent += box.pixelColor(x, y) == colour("COLOR_ACCENT") ? 1 : 0;
    EXPECT_GT(accent, 60);
    // The names in the list are the light text on that dark ground.
    EXPECT_GT(qGray(colour("COLOR_TEXT").rgb()) - qGray(colour("COLOR_SURFACE").rgb()), 128);
    qcontrols::CStyleSheetManager::clear();
}

// ---- Help pages -------------------------------------------------------------

const QStringList& helpPages()
{
    static const QStringList pages = {
        QStringLiteral("index.html"),       QStringLiteral("learn.html"),
        QStringLiteral("analyze.html"),     QStringLiteral("results.html"),
        QStringLiteral("report.html"),      QStringLiteral("integration.html"),
        QStringLiteral("commandline.html"),
    };
    return pages;
}

struct SPage
{
    QString error;
    QStringList links;     // href and src values
    QSet<QString> anchors; // id and name values
    QString text;
};

SPage readPage(const QString& path)
{
    SPage page;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
    {
        page.error = QStringLiteral("cannot open");
        return page;
    }
    QXmlStreamReader xml(&file);
    while (!xml.atEnd())
    {
        xml.readNext();
        if (xml.isStartElement())
        {
            const auto attributes = xml.attributes();
            for (const char* attribute : {"href", "src"})
                if (attributes.hasAttribute(QLatin1String(attribute)))
                    page.links.append(attributes.value(QLatin1String(attribute)).toString());
            for (const char* attribute : {"id", "name"})
                if (attributes.hasAttribute(QLatin1String(attribute)))
                    page.anchors.insert(attributes.value(QLatin1String(attribute)).toString());
        }
        else if (xml.isCharacters())
        {
            page.text += xml.text();
        }
    }
    if (xml.hasError())
        page.error = xml.errorString() + QStringLiteral(" at line ") + QString::number(xml.lineNumber());
    return page;
}

void checkHelpFolder(const QString& folder)
{
    SCOPED_TRACE(folder.toStdString());
    const QDir dir(folder);
    ASSERT_TRUE(dir.exists());
    EXPECT_TRUE(dir.exists(QStringLiteral("helpStyle.css")));

    QSet<QString> linkedFromIndex;
    for (const QString& name : helpPages())
    {
        SCOPED_TRACE(name.toStdString());
        const SPage page = readPage(dir.filePath(name));
        ASSERT_TRUE(page.error.isEmpty()) << page.error.toStdString();
        EXPECT_GT(page.text.simplified().size(), 400) << "the page says too little";
        EXPECT_TRUE(page.links.contains(QStringLiteral("helpStyle.css")));
        for (const QString& link : page.links)
        {
            const QUrl url(link);
            if (!url.scheme().isEmpty())
                continue; // external addresses are not checked
            const QString target = url.path().isEmpty() ? name : url.path();
            EXPECT_TRUE(QFileInfo::exists(dir.filePath(target))) << "broken link " << link.toStdString();
            if (url.hasFragment())
            {
                const SPage linked = target == name ? page : readPage(dir.filePath(target));
                EXPECT_TRUE(linked.anchors.contains(url.fragment()))
                    << "missing anchor " << link.toStdString();
            }
            if (name == QStringLiteral("index.html"))
                linkedFromIndex.insert(target);
        }
    }
    for (const QString& name : helpPages())
    {
        if (name != QStringLiteral("index.html"))
        {
            EXPECT_TRUE(linkedFromIndex.contains(name)) << "index.html does not link " << name.toStdString();
        }
    }
}

TEST_F(ResourcesTest, HelpPagesInTheSourceFolder)
{
    checkHelpFolder(QStringLiteral(QUORVEX_HELP_SOURCE_DIR));
}

TEST_F(ResourcesTest, HelpPagesBesideTheProgram)
{
    checkHelpFolder(QStringLiteral(QUORVEX_HELP_INSTALLED_DIR));
}

TEST_F(ResourcesTest, HelpStyleIsTheCompiledInOne)
{
    QFile installed(QDir(QStringLiteral(QUORVEX_HELP_INSTALLED_DIR)).filePath(QStringLiteral("helpStyle.css")));
    QFile compiled(QStringLiteral(":/Quorvex/helpStyle.css"));
    ASSERT_TRUE(installed.open(QIODevice::ReadOnly));
    ASSERT_TRUE(compiled.open(QIODevice::ReadOnly));
    EXPECT_EQ(installed.readAll(), compiled.readAll());
}

} // namespace
