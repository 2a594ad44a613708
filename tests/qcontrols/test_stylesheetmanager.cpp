#include "qcontrols/stylesheetmanager.h"
#include "qutils/debugutils.h"
#include "qutils/exception.h"

#include <QFile>
#include <QTemporaryDir>
#include <QWidget>

#include "logcapture.h"

#include <gtest/gtest.h>

using qcontrols::CStyleSheetManager;

namespace
{

class StyleSheetManager : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        CStyleSheetManager::clear();
    }
    void TearDown() override { CStyleSheetManager::clear(); }

    QString writeFile(const QString& name, const QByteArray& content)
    {
        const QString path = m_dir.filePath(name);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            ADD_FAILURE() << "cannot write " << path.toStdString();
        return path;
    }

    QTemporaryDir m_dir;
};

} // namespace

TEST_F(StyleSheetManager, KeepsWhatWasSetAndLogsAReadBeforeThat)
{
    testutils::CLogCapture before;
    EXPECT_FALSE(CStyleSheetManager::hasStyleSheet());
    EXPECT_EQ(CStyleSheetManager::styleSheet(), QString());
    EXPECT_TRUE(before.hasRecord(QStringLiteral("Debug"), QStringLiteral("qcontrols/stylesheetmanager.cpp")));
    EXPECT_TRUE(before.text().contains(QLatin1String("before one was set")));

    CStyleSheetManager::setStyleSheet(QStringLiteral("QLabel { color: red; }"));
    EXPECT_TRUE(CStyleSheetManager::hasStyleSheet());
    EXPECT_EQ(CStyleSheetManager::styleSheet(), QStringLiteral("QLabel { color: red; }"));
    // An empty sheet set on purpose is a sheet, not "none yet": no record.
    CStyleSheetManager::setStyleSheet(QString());
    testutils::CLogCapture after;
    EXPECT_EQ(CStyleSheetManager::styleSheet(), QString());
    EXPECT_FALSE(after.text().contains(QLatin1String("before one was set")));
}

TEST_F(StyleSheetManager, ScalesWholePixelTokensOnly)
{
    const char* const border = "QWidget{margin:10px 3px;border:1px solid #fff;width:-4px;font-size:9pt}";
    const char* const others =
        "QLabel#px10px{image:url(:/Quorvex/icons/16px.png);x:px;y:10pxx;z:10 px;w:a10px}";
    const struct
    {
        const char* sheet;
        double scale;
        const char* expected;
    } cases[] = {
        {border, 1.5, "QWidget{margin:15px 5px;border:2px solid #fff;width:-6px;font-size:9pt}"},
        {border, 2.0, "QWidget{margin:20px 6px;border:2px solid #fff;width:-8px;font-size:9pt}"},
        {others, 2.0, others},
        // A small scale keeps non-zero lengths visible.
        {"a:1px;b:0px;c:0.5px;d:-1px", 0.25, "a:1px;b:0px;c:1px;d:-1px"},
        {"a:1.5px;b:.5px;c:+3px", 1.25, "a:2px;b:1px;c:4px"},
        // A unit or invalid scale leaves the sheet.
        {"a:1.5px;b:7px", 1.0, "a:1.5px;b:7px"},
        {"a:1.5px;b:7px", 0.0, "a:1.5px;b:7px"},
        {"a:1.5px;b:7px", -2.0, "a:1.5px;b:7px"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CStyleSheetManager::scalePixelSizes(QString::fromLatin1(c.sheet), c.scale).toStdString(),
                  c.expected)
            << c.sheet << " x " << c.scale;
}

TEST_F(StyleSheetManager, LoadAppliesConstantsThenScales)
{
    const QString sheetPath = writeFile(
        QStringLiteral("style.qss"), "QPushButton { border: BUTTON_BORDER; padding: PAD; color: ACCENT; }\n");
    const QString constantsPath = writeFile(QStringLiteral("constants.txt"),
                                            "ACCENT=#3fa7d6\nPAD=4px 6px\nBUTTON_BORDER=1px solid ACCENT\n");
    const QString loaded = CStyleSheetManager::load(sheetPath, constantsPath, 2.0);
    // Sizes that came from constants are scaled too.
    EXPECT_EQ(loaded.toStdString(),
              "QPushButton { border: 2px solid #3fa7d6; padding: 8px 12px; color: #3fa7d6; }\n");
    EXPECT_EQ(CStyleSheetManager::styleSheet(), loaded);
    // The result is a sheet Qt accepts on a widget.
    QWidget widget;
    widget.setStyleSheet(loaded);
    EXPECT_EQ(widget.styleSheet(), loaded);

    // Without constants the names stay as written and only lengths scale.
    const QString plain = writeFile(QStringLiteral("plain.qss"), "QLabel { margin: 3px; color: MAIN; }");
    EXPECT_EQ(CStyleSheetManager::load(plain, QString(), 1.0),
              QStringLiteral("QLabel { margin: 3px; color: MAIN; }"));
    EXPECT_EQ(CStyleSheetManager::load(plain, QString(), 3.0),
              QStringLiteral("QLabel { margin: 9px; color: MAIN; }"));
}

TEST_F(StyleSheetManager, MissingSheetGivesEmptyTextAndLogs)
{
    testutils::CLogCapture log;
    EXPECT_EQ(CStyleSheetManager::load(m_dir.filePath(QStringLiteral("absent.qss")), QString(), 1.5),
              QString());
    EXPECT_TRUE(CStyleSheetManager::hasStyleSheet());
    EXPECT_EQ(CStyleSheetManager::styleSheet(), QString());
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qcontrols/stylesheetmanager.cpp")));
    EXPECT_TRUE(log.text().contains(QLatin1String("absent.qss")));
    // A missing resource behaves the same.
    EXPECT_EQ(CStyleSheetManager::load(QStringLiteral(":/Quorvex/no-such-stylesheet.qss"), QString(), 1.0),
              QString());
}

TEST_F(StyleSheetManager, BrokenConstantsThrowAndKeepTheEarlierSheet)
{
    CStyleSheetManager::setStyleSheet(QStringLiteral("QLabel { color: red; }"));
    const QString sheetPath = writeFile(QStringLiteral("style.qss"), "QLabel { color: A; }");
    const QString constantsPath = writeFile(QStringLiteral("constants.txt"), "A = B\nB = A\n");
    try
    {
        CStyleSheetManager::load(sheetPath, constantsPath, 1.0);
        ADD_FAILURE() << "no exception";
    }
    catch (const qutils::CException& e)
    {
        EXPECT_EQ(e.message(), QStringLiteral("Constants circular dependence"));
        EXPECT_EQ(e.code(), 1287);
    }
    EXPECT_EQ(CStyleSheetManager::styleSheet(), QStringLiteral("QLabel { color: red; }"));
}
