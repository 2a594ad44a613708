// The compiled-in resources (icons, busy-indicator frames, style sheet and its
// constants) and the help pages installed beside the program.

#include "resources.h"

#include "qcontrols/stylesheetmanager.h"
#include "qutils/stylesheetsparser.h"

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFrame>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QMessageBox>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QSet>
#include <QTemporaryDir>
#include <QTreeView>
#include <QUrl>
#include <QVBoxLayout>
#include <QXmlStreamReader>

#include "testfiles.h"

#include <gtest/gtest.h>

#include <functional>

namespace
{

class ResourcesTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { quorvex::initResources(); }
    void TearDown() override { qcontrols::CStyleSheetManager::clear(); }
};

// Checks that a picture has a size within bounds and something drawn that is
// not a filled square; returns it.
QImage expectDrawnPicture(const QString& path, int minSide, int maxSide)
{
    SCOPED_TRACE(path.toStdString());
    const QImage image = QImage(path).convertToFormat(QImage::Format_ARGB32);
    EXPECT_FALSE(image.isNull());
    EXPECT_GE(qMin(image.width(), image.height()), minSide);
    EXPECT_LE(qMax(image.width(), image.height()), maxSide);
    qint64 drawn = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            drawn += qAlpha(image.pixel(x, y)) > 0 ? 1 : 0;
    const double share = double(drawn) / double(qMax(1, image.width() * image.height()));
    EXPECT_GT(share, 0.02);
    EXPECT_LT(share, 0.95);
    return image;
}

TEST_F(ResourcesTest, EveryNamedIconIsAPictureAndTheBusyIndicatorTurns)
{
    // Every icon and picture the program's pages name.
    const QString icons = QStringLiteral("next back home help reactivate update save cancel fingerprint description "
                                         "maximize restorewin close-icon introImage2 check");
    for (const QString& icon : icons.split(QLatin1Char(' ')))
        expectDrawnPicture(QStringLiteral(":/Quorvex/%1.png").arg(icon), 32, 1024);

    QList<QImage> frames;
    for (int i = 0; i < 8; ++i)
        frames.append(expectDrawnPicture(QStringLiteral(":/qcontrols/loading%1.png").arg(i), 30, 256));
    // Each frame differs from the one before it: the spinner turns.
    for (int i = 1; i < frames.size(); ++i)
        EXPECT_NE(frames.at(i), frames.at(i - 1)) << "frame " << i;
    // Eight turns of 45 degrees: frame 0 turned by 90 degrees equals frame 2.
    const QImage turned = frames.at(0).transformed(QTransform().rotate(90));
    ASSERT_EQ(turned.size(), frames.at(2).size());
    int differing = 0;
    for (int y = 0; y < turned.height(); ++y)
        for (int x = 0; x < turned.width(); ++x)
            differing += qAbs(qAlpha(turned.pixel(x, y)) - qAlpha(frames.at(2).pixel(x, y))) > 40 ? 1 : 0;
    EXPECT_LT(differing, turned.width() * turned.height() / 100);
}

// ---- Style sheet ----------------------------------------------------------

qutils::CStyleSheetsParser::Constants constants(bool resolved)
{
    qutils::CStyleSheetsParser parser;
    parser.readConstants(quorvex::styleConstantsResourcePath());
    return resolved ? parser.resolvedConstants() : parser.constants();
}

QColor constantColour(const char* name)
{
    return QColor(constants(true).value(QString::fromLatin1(name)).trimmed());
}

QString loadSheet(double scale)
{
    return qcontrols::CStyleSheetManager::load(quorvex::styleSheetResourcePath(),
                                               quorvex::styleConstantsResourcePath(), scale);
}

// What Qt warns about while work() runs. The offscreen platform's complaint
// that it cannot pass size hints to a window manager says nothing about a sheet.
QStringList warningsWhile(const std::function<void()>& work)
{
    static QStringList warnings;
    warnings.clear();
    const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& message) {
        if (type != QtDebugMsg && type != QtInfoMsg && !message.contains(QStringLiteral("propagateSizeHints")))
            warnings.append(message);
    });
    work();
    qInstallMessageHandler(previous);
    return warnings;
}

QWidget* addNamed(QWidget* widget, const char* name, QLayout* layout)
{
    widget->setObjectName(QString::fromLatin1(name));
    layout->addWidget(widget);
    return widget;
}

TEST_F(ResourcesTest, StyleSheetLoadsWithoutLeftoverOrUnusedConstants)
{
    const auto resolved = constants(true);
    EXPECT_GE(resolved.size(), 10);
    for (const double scale : {1.0, 1.5})
    {
        SCOPED_TRACE(scale);
        QString sheet;
        ASSERT_NO_THROW(sheet = loadSheet(scale));
        ASSERT_FALSE(sheet.isEmpty());
        EXPECT_EQ(qcontrols::CStyleSheetManager::styleSheet(), sheet);
        for (auto it = resolved.cbegin(); it != resolved.cend(); ++it)
            EXPECT_EQ(qutils::CStyleSheetsParser::findConstant(sheet, it.key()), -1)
                << "constant left in the sheet: " << it.key().toStdString();
    }
    // The folder page's rules scale with the interface.
    const QString scaled = loadSheet(1.5);
    EXPECT_TRUE(scaled.contains(QStringLiteral("min-width: 450px")));
    EXPECT_TRUE(scaled.contains(QStringLiteral("font-size: 27px")));

    // Every constant is used by the sheet or by another constant.
    const auto written = constants(false);
    QFile file(quorvex::styleSheetResourcePath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly | QIODevice::Text));
    const QString raw = QString::fromUtf8(file.readAll());
    for (auto it = resolved.cbegin(); it != resolved.cend(); ++it)
    {
        bool used = qutils::CStyleSheetsParser::findConstant(raw, it.key()) >= 0;
        for (auto other = written.cbegin(); !used && other != written.cend(); ++other)
            used = other.key() != it.key() && qutils::CStyleSheetsParser::findConstant(other.value(), it.key()) >= 0;
        EXPECT_TRUE(used) << "unused constant: " << it.key().toStdString();
    }
}

TEST_F(ResourcesTest, QtAcceptsTheSheetWithoutWarningsAndItsRulesReachTheTiles)
{
    // The check is only worth something if a sheet Qt rejects is noticed.
    EXPECT_FALSE(warningsWhile([] {
                     QLabel label(QStringLiteral("Text"));
                     label.setStyleSheet(QStringLiteral("QLabel { color: COLOR_TEXT; "));
                     label.show();
                     (void)label.grab();
                 }).isEmpty());

    // Each result class frames its tile in its own colour; the tile stays plain.
    const std::pair<const char*, const char*> tileStates[] = {
        {"normal", "COLOR_BORDER"},           {"success_very_high", "COLOR_RESULT_VERY_HIGH"},
        {"success_high", "COLOR_RESULT_HIGH"}, {"success_medium", "COLOR_RESULT_MEDIUM"},
        {"success_low", "COLOR_RESULT_LOW"},   {"fail", "COLOR_RESULT_FAIL"},
    };
    for (const double scale : {1.0, 1.5})
    {
        SCOPED_TRACE(scale);
        const QStringList warnings = warningsWhile([&] {
            QMainWindow window;
            window.setStyleSheet(loadSheet(scale));
            auto* central = new QWidget(&window);
            auto* layout = new QVBoxLayout(central);
            window.setCentralWidget(central);
            for (const char* name : {"btnAnalyze", "btnLearn", "btnHelp", "btnReactivate", "btnUpdate", "btnChooseDir",
                                     "btnNavigateHome", "btnNavigateSaveReport", "btnNavigateCancel", "btnNavigateNext"})
                addNamed(new QPushButton(QStringLiteral("Button")), name, layout);
            for (const char* name : {"versionLabel", "introImage", "imagesCount", "lbTitle", "fingerprintHeader",
                                     "fingerprintDescription", "fingerprintData", "progressLabel", "titleLabel",
                                     "pathLabel"})
                addNamed(new QLabel(QStringLiteral("Text")), name, layout);
            addNamed(new QLineEdit(), "editPath", layout);
            addNamed(new QCheckBox(QStringLiteral("Include subfolders")), "fingerprintSettings", layout);
            auto* bar = new QProgressBar();
            bar->setRange(0, 10);
            bar->setValue(4);
            layout->addWidget(bar);
            QList<QWidget*> tiles;
            for (const auto& state : tileStates)
            {
                tiles << addNamed(new QFrame(), "content", layout);
                tiles.last()->setProperty("state", QString::fromLatin1(state.first));
                tiles.last()->setFixedSize(60, 40);
            }
            window.resize(900, 1400);
            window.show();
            QApplication::processEvents();
            (void)window.grab();
            QSet<QRgb> seen;
            for (int i = 0; i < tiles.size(); ++i)
            {
                SCOPED_TRACE(tileStates[i].first);
                const QImage image = tiles.at(i)->grab().toImage();
                const QColor edge = image.pixelColor(0, image.height() / 2);
                EXPECT_EQ(edge.rgb(), constantColour(tileStates[i].second).rgb());
                EXPECT_EQ(image.pixelColor(image.width() / 2, image.height() / 2).rgb(),
                          constantColour("COLOR_SURFACE_RAISED").rgb());
                seen.insert(edge.rgb());
            }
            EXPECT_EQ(seen.size(), tiles.size());

            QMessageBox box(QMessageBox::Question, QStringLiteral("Please confirm"), QStringLiteral("Are you sure?"),
                            QMessageBox::Yes | QMessageBox::No, &window);
            box.show();
            QApplication::processEvents();
            (void)box.grab();
        });
        EXPECT_TRUE(warnings.isEmpty()) << warnings.join(QLatin1Char('\n')).toStdString();
    }
}

// Qt's own file dialog under the sheet: its list, header and check boxes take
// the sheet's dark surfaces, so the light text stays readable.
// QUORVEX_SCREENSHOT_DIR keeps a picture of it.
TEST_F(ResourcesTest, FileDialogUnderTheSheetIsReadable)
{
    QTemporaryDir folder;
    for (const char* name : {"IMG_0001.JPG", "IMG_0002.JPG", "reference.fnp"})
        ASSERT_TRUE(testutils::writeFile(folder.filePath(QString::fromLatin1(name))));
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
    const QWidget* list = view->viewport();
    const QPoint listSpot = list->mapTo(&dialog, QPoint(list->width() - 4, list->height() - 4));
    const QHeaderView* header = view->header();
    const QPoint headerSpot = header->mapTo(&dialog, QPoint(header->width() - 3, header->height() / 2));
    EXPECT_EQ(shot.pixelColor(listSpot).name(), constantColour("COLOR_SURFACE").name()) << "list";
    EXPECT_EQ(shot.pixelColor(headerSpot).name(), constantColour("COLOR_SURFACE_RAISED").name()) << "header";
    // The ticked box is filled with the accent around its tick.
    const QImage box = check->grab().toImage();
    int accent = 0;
    for (int y = 0; y < box.height(); ++y)
        for (int x = 0; x < box.width(); ++x)
            accent += box.pixelColor(x, y) == constantColour("COLOR_ACCENT") ? 1 : 0;
    EXPECT_GT(accent, 60);
    // The names in the list are the light text on that dark ground.
    EXPECT_GT(qGray(constantColour("COLOR_TEXT").rgb()) - qGray(constantColour("COLOR_SURFACE").rgb()), 128);
}

// ---- Help pages -------------------------------------------------------------

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
        return SPage{QStringLiteral("cannot open"), {}, {}, {}};
    QXmlStreamReader xml(&file);
    while (!xml.atEnd())
    {
        xml.readNext();
        if (xml.isCharacters())
            page.text += xml.text();
        if (!xml.isStartElement())
            continue;
        const auto attributes = xml.attributes();
        for (const char* attribute : {"href", "src"})
            if (attributes.hasAttribute(QLatin1String(attribute)))
                page.links.append(attributes.value(QLatin1String(attribute)).toString());
        for (const char* attribute : {"id", "name"})
            if (attributes.hasAttribute(QLatin1String(attribute)))
                page.anchors.insert(attributes.value(QLatin1String(attribute)).toString());
    }
    if (xml.hasError())
        page.error = xml.errorString() + QStringLiteral(" at line ") + QString::number(xml.lineNumber());
    return page;
}

// The pages in the source folder and beside the program: well-formed, saying
// enough, styled, every link and anchor resolved, every page reached from the
// index; the installed copy complete, its style the compiled-in one.
TEST_F(ResourcesTest, HelpPagesInTheSourceFolderAndBesideTheProgram)
{
    const QStringList pages = QDir(QStringLiteral(QUORVEX_HELP_SOURCE_DIR)).entryList({QStringLiteral("*.html")});
    ASSERT_TRUE(pages.contains(QStringLiteral("index.html")));
    EXPECT_GE(pages.size(), 7);
    for (const char* folder : {QUORVEX_HELP_SOURCE_DIR, QUORVEX_HELP_INSTALLED_DIR})
    {
        SCOPED_TRACE(folder);
        const QDir dir(QString::fromUtf8(folder));
        EXPECT_EQ(dir.entryList({QStringLiteral("*.html")}), pages);
        QFile style(dir.filePath(QStringLiteral("helpStyle.css")));
        QFile compiled(QStringLiteral(":/Quorvex/helpStyle.css"));
        ASSERT_TRUE(style.open(QIODevice::ReadOnly) && compiled.open(QIODevice::ReadOnly));
        EXPECT_EQ(style.readAll(), compiled.readAll());

        QSet<QString> linkedFromIndex;
        for (const QString& name : pages)
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
                    EXPECT_TRUE(linked.anchors.contains(url.fragment())) << "missing anchor " << link.toStdString();
                }
                if (name == QStringLiteral("index.html"))
                    linkedFromIndex.insert(target);
            }
        }
        for (const QString& name : pages)
            EXPECT_TRUE(name == QStringLiteral("index.html") || linkedFromIndex.contains(name))
                << "index.html does not link " << name.toStdString();
    }
}

} // namespace
