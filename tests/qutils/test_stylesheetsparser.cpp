#include "qutils/debugutils.h"
#include "qutils/exception.h"
#include "qutils/stylesheetsparser.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "logcapture.h"

#include <gtest/gtest.h>

using qutils::CException;
using qutils::CStyleSheetsParser;

namespace
{

// Runs f, expecting a CException with the given text and code 1287.
template <typename F> void expectError(F f, const QString& message)
{
    try
    {
        f();
        ADD_FAILURE() << "no exception, expected: " << message.toStdString();
    }
    catch (const CException& e)
    {
        EXPECT_EQ(e.message(), message);
        EXPECT_EQ(e.code(), 1287);
    }
}

void expectParseError(const QString& text, const QString& message)
{
    CStyleSheetsParser parser;
    expectError([&] { parser.parseConstants(text); }, message);
    // Nothing of a failing text is kept.
    EXPECT_TRUE(parser.constants().isEmpty());
}

QString writeFile(const QTemporaryDir& dir, const QString& name, const QByteArray& content)
{
    const QString path = dir.filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        ADD_FAILURE() << "cannot write " << path.toStdString();
    return path;
}

} // namespace

// --- parsing the constants text ---

TEST(StyleSheetsParserParse, DefinitionsKeepTheBlanksAfterEquals)
{
    CStyleSheetsParser parser;
    parser.parseConstants(QStringLiteral("COLOR_1 = #fff\nBORDER = 1px solid COLOR_1\n"));
    ASSERT_EQ(parser.constants().size(), 2);
    EXPECT_EQ(parser.constants().value(QStringLiteral("COLOR_1")), QStringLiteral(" #fff"));
    EXPECT_EQ(parser.constants().value(QStringLiteral("BORDER")), QStringLiteral(" 1px solid COLOR_1"));
}

TEST(StyleSheetsParserParse, NameTrimmedValueSplitAtFirstEquals)
{
    CStyleSheetsParser parser;
    parser.parseConstants(QStringLiteral("\t 2ND_name\t=a=b \nX=\n"));
    EXPECT_EQ(parser.constants().value(QStringLiteral("2ND_name")), QStringLiteral("a=b "));
    ASSERT_TRUE(parser.constants().contains(QStringLiteral("X")));
    EXPECT_EQ(parser.constants().value(QStringLiteral("X")), QString());
}

TEST(StyleSheetsParserParse, CommentCutKeepsBlankBeforeIt)
{
    CStyleSheetsParser parser;
    parser.parseConstants(QStringLiteral("COLOR = red // main colour\nURL = a//b=c"));
    EXPECT_EQ(parser.constants().value(QStringLiteral("COLOR")), QStringLiteral(" red "));
    // The first "//" wins, even inside what looks like a value.
    EXPECT_EQ(parser.constants().value(QStringLiteral("URL")), QStringLiteral(" a"));
}

TEST(StyleSheetsParserParse, BlankWhitespaceAndCommentLinesSkipped)
{
    CStyleSheetsParser parser;
    parser.parseConstants(
        QStringLiteral("\n   \n\t\n// just a note = not a constant\n  // indented\nA = 1\n\n"));
    ASSERT_EQ(parser.constants().size(), 1);
    EXPECT_EQ(parser.constants().value(QStringLiteral("A")), QStringLiteral(" 1"));
}

TEST(StyleSheetsParserParse, DuplicateNameThrows)
{
    expectParseError(QStringLiteral("A = 1\nA = 2"), QStringLiteral("Key already exists."));
    // Names are trimmed before they are compared.
    expectParseError(QStringLiteral("A = 1\n  A= 2"), QStringLiteral("Key already exists."));
}

TEST(StyleSheetsParserParse, EmptyNameReportsZeroBasedLine)
{
    expectParseError(QStringLiteral("A = 1\nB = 2\n// note\n = red"),
                     QStringLiteral("Empty constant name, line 3"));
    expectParseError(QStringLiteral("=x"), QStringLiteral("Empty constant name, line 0"));
}

TEST(StyleSheetsParserParse, IncorrectNameReportsZeroBasedLine)
{
    expectParseError(QStringLiteral("A = 1\nMY-COLOR = red"),
                     QStringLiteral("Constant name is incorrect, line 1"));
    expectParseError(QStringLiteral("MY COLOR = red"), QStringLiteral("Constant name is incorrect, line 0"));
    expectParseError(QStringLiteral("\n\n\nCOLOR\u00e9 = red"),
                     QStringLiteral("Constant name is incorrect, line 3"));
}

TEST(StyleSheetsParserParse, LineWithoutEqualsIsWrongSyntax)
{
    expectParseError(QStringLiteral("A = 1\n\njust text"),
                     QStringLiteral("Wrong syntax, line 2, CONSTANT_NAME = VALUE expected."));
    // An "=" that only appears in the comment does not make a definition.
    expectParseError(QStringLiteral("NAME // = value"),
                     QStringLiteral("Wrong syntax, line 0, CONSTANT_NAME = VALUE expected."));
}

TEST(StyleSheetsParserParse, FailingTextKeepsEarlierConstants)
{
    CStyleSheetsParser parser;
    parser.parseConstants(QStringLiteral("A = 1"));
    expectError([&] { parser.parseConstants(QStringLiteral("B = 2\nC-D = 3")); },
                QStringLiteral("Constant name is incorrect, line 1"));
    ASSERT_EQ(parser.constants().size(), 1);
    EXPECT_EQ(parser.constants().value(QStringLiteral("A")), QStringLiteral(" 1"));
    // A second text may not redefine what the first defined.
    expectError([&] { parser.parseConstants(QStringLiteral("A = 3")); },
                QStringLiteral("Key already exists."));
}

// --- adding and changing constants ---

TEST(StyleSheetsParserConstants, AddAndSet)
{
    CStyleSheetsParser parser;
    parser.addConstant(QStringLiteral("B"), QStringLiteral("2"));
    parser.addConstant(QStringLiteral("A"), QStringLiteral("1"));
    EXPECT_EQ(parser.constants().keys(), QStringList({QStringLiteral("A"), QStringLiteral("B")}));
    expectError([&] { parser.addConstant(QStringLiteral("A"), QStringLiteral("9")); },
                QStringLiteral("Key already exists."));
    EXPECT_EQ(parser.constants().value(QStringLiteral("A")), QStringLiteral("1"));

    parser.setConstant(QStringLiteral("A"), QStringLiteral("3"));
    EXPECT_EQ(parser.constants().value(QStringLiteral("A")), QStringLiteral("3"));
    expectError([&] { parser.setConstant(QStringLiteral("C"), QStringLiteral("4")); },
                QStringLiteral("Key does not exist."));
    EXPECT_FALSE(parser.constants().contains(QStringLiteral("C")));
}

// --- whole-token search and replacement ---

TEST(StyleSheetsParserFind, OnlyWholeTokensMatch)
{
    EXPECT_EQ(CStyleSheetsParser::findConstant(QStringLiteral("BORDER_WIDTH XBORDER BORDERX"),
                                               QStringLiteral("BORDER")),
              -1);
    EXPECT_EQ(CStyleSheetsParser::findConstant(QStringLiteral("XBORDER BORDER"), QStringLiteral("BORDER")),
              8);
    EXPECT_EQ(CStyleSheetsParser::findConstant(QStringLiteral("BORDER"), QStringLiteral("BORDER")), 0);
    EXPECT_EQ(CStyleSheetsParser::findConstant(QStringLiteral("10px px"), QStringLiteral("px")), 5);
    EXPECT_EQ(CStyleSheetsParser::findConstant(QStringLiteral("a,B b.B B-x"), QStringLiteral("B")), -1);
    EXPECT_EQ(CStyleSheetsParser::findConstant(QStringLiteral("abc"), QString()), -1);
}

TEST(StyleSheetsParserFind, EveryOneOfTheTwelveSeparatorsEndsAToken)
{
    const QString separators = QStringLiteral("[ \t\n:;={}()]");
    ASSERT_EQ(separators.size(), 12);
    for (const QChar c : separators)
    {
        EXPECT_TRUE(CStyleSheetsParser::isSeparator(c)) << int(c.unicode());
        const QString text = QStringLiteral("XN") + c + QStringLiteral("N") + c + QStringLiteral("NX");
        EXPECT_EQ(CStyleSheetsParser::findConstant(text, QStringLiteral("N")), 3) << int(c.unicode());
    }
    for (const QChar c : QStringLiteral(",.-_/\\\r\"'#!*+>~|"))
        EXPECT_FALSE(CStyleSheetsParser::isSeparator(c)) << int(c.unicode());
}

TEST(StyleSheetsParserFind, SearchStartsAtTheGivenIndex)
{
    const QString text = QStringLiteral("A:A;A");
    EXPECT_EQ(CStyleSheetsParser::findConstant(text, QStringLiteral("A"), 0), 0);
    EXPECT_EQ(CStyleSheetsParser::findConstant(text, QStringLiteral("A"), 1), 2);
    EXPECT_EQ(CStyleSheetsParser::findConstant(text, QStringLiteral("A"), 3), 4);
    EXPECT_EQ(CStyleSheetsParser::findConstant(text, QStringLiteral("A"), 5), -1);
}

TEST(StyleSheetsParserReplace, ReplacesWholeTokensOnly)
{
    EXPECT_EQ(CStyleSheetsParser::replaceConstant(QStringLiteral("width: 10px; height: px;px"),
                                                  QStringLiteral("px"), QStringLiteral("4px")),
              QStringLiteral("width: 10px; height: 4px;4px"));
    EXPECT_EQ(CStyleSheetsParser::replaceConstant(QStringLiteral("{BORDER_WIDTH:BORDER;XBORDER=(BORDER)}"),
                                                  QStringLiteral("BORDER"), QStringLiteral("1px")),
              QStringLiteral("{BORDER_WIDTH:1px;XBORDER=(1px)}"));
    EXPECT_EQ(CStyleSheetsParser::replaceConstant(QStringLiteral("nothing here"), QStringLiteral("N"),
                                                  QStringLiteral("x")),
              QStringLiteral("nothing here"));
}

TEST(StyleSheetsParserReplace, InsertedValuesAreNotSearchedAgain)
{
    // If the output were searched again, this would never end or would grow.
    EXPECT_EQ(CStyleSheetsParser::replaceConstant(QStringLiteral("A;A"), QStringLiteral("A"),
                                                  QStringLiteral("A A")),
              QStringLiteral("A A;A A"));
    EXPECT_EQ(
        CStyleSheetsParser::replaceConstant(QStringLiteral("B"), QStringLiteral("B"), QStringLiteral("x B")),
        QStringLiteral("x B"));
}

TEST(StyleSheetsParserReplace, EmptyNameLeavesTextAndLogs)
{
    testutils::CLogCapture log;
    EXPECT_EQ(CStyleSheetsParser::replaceConstant(QStringLiteral("a b"), QString(), QStringLiteral("x")),
              QStringLiteral("a b"));
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Debug"), QStringLiteral("qutils/stylesheetsparser.cpp")));
}

// --- resolving constants that refer to constants ---

TEST(StyleSheetsParserResolve, NestedConstantsResolve)
{
    CStyleSheetsParser parser;
    parser.parseConstants(QStringLiteral("COLOR_1 = #fff\nBORDER = 1px solid COLOR_1\n"
                                         "FRAME = BORDER;COLOR_1\nWIDE = FRAME FRAME"));
    const CStyleSheetsParser::Constants resolved = parser.resolvedConstants();
    EXPECT_EQ(resolved.value(QStringLiteral("BORDER")), QStringLiteral(" 1px solid  #fff"));
    EXPECT_EQ(resolved.value(QStringLiteral("FRAME")), QStringLiteral("  1px solid  #fff; #fff"));
    EXPECT_EQ(resolved.value(QStringLiteral("WIDE")),
              QStringLiteral("   1px solid  #fff; #fff   1px solid  #fff; #fff"));
    // The defined values themselves are left as written.
    EXPECT_EQ(parser.constants().value(QStringLiteral("BORDER")), QStringLiteral(" 1px solid COLOR_1"));
}

TEST(StyleSheetsParserResolve, ValueWithoutLeadingBlankResolvesExactly)
{
    CStyleSheetsParser parser;
    parser.addConstant(QStringLiteral("COLOR_1"), QStringLiteral("#fff"));
    parser.addConstant(QStringLiteral("BORDER"), QStringLiteral(" 1px solid COLOR_1"));
    EXPECT_EQ(parser.resolvedConstants().value(QStringLiteral("BORDER")), QStringLiteral(" 1px solid #fff"));
}

TEST(StyleSheetsParserResolve, CyclesThrow)
{
    const QString circular = QStringLiteral("Constants circular dependence");
    for (const QString& text :
         {QStringLiteral("A = B\nB = A"), QStringLiteral("SELF = 1px SELF"),
          QStringLiteral("A = B\nB = C\nC = A\nD = 1"), QStringLiteral("OK = 1\nA = B\nB = A\nUSER = OK A")})
    {
        CStyleSheetsParser parser;
        parser.parseConstants(text);
        expectError([&] { parser.resolvedConstants(); }, circular);
        expectError([&] { parser.apply(QStringLiteral("x { color: OK; }")); }, circular);
    }
}

TEST(StyleSheetsParserResolve, DoublingValuesStopAtTheBudget)
{
    // Sixty lines whose values double at every step would name 2^60 tokens.
    QString text = QStringLiteral("C0 = x\n");
    for (int i = 1; i < 60; ++i)
        text += QStringLiteral("C%1 = C%2 C%2\n").arg(i).arg(i - 1);
    CStyleSheetsParser parser;
    parser.parseConstants(text);
    const auto expectExpansionError = [](auto f) {
        try
        {
            f();
            ADD_FAILURE() << "no exception";
        }
        catch (const CException& e)
        {
            EXPECT_TRUE(e.message().startsWith(QStringLiteral("Constants expand beyond ")))
                << e.message().toStdString();
            EXPECT_EQ(e.code(), 1287);
        }
    };
    qint64 own = 0;
    for (const QString& value : parser.constants())
        own += value.size();
    expectError([&] { parser.resolvedConstants(); }, QStringLiteral("Constants expand beyond %1 characters")
                                                         .arg(own + CStyleSheetsParser::MaxResolutionGrowth));
    expectExpansionError([&] { parser.apply(QStringLiteral("x { color: C59; }")); });
    // The first twelve steps stay inside the budget and resolve in full.
    CStyleSheetsParser shorter;
    shorter.parseConstants(text.section(QLatin1Char('\n'), 0, 11));
    EXPECT_EQ(shorter.resolvedConstants().value(QStringLiteral("C11")).count(QLatin1Char('x')), 1 << 11);
}

TEST(StyleSheetsParserApply, SheetGrowthStopsAtTheBudget)
{
    // One allowed long value, named by many tokens of a sheet.
    CStyleSheetsParser parser;
    parser.addConstant(QStringLiteral("LONG"), QString(100000, QLatin1Char('a')));
    QString sheet;
    for (int i = 0; i < 100; ++i)
        sheet += QStringLiteral("LONG ");
    expectError([&] { parser.apply(sheet); }, QStringLiteral("Constants expand beyond %1 characters")
                                                  .arg(sheet.size() + CStyleSheetsParser::MaxApplyGrowth));
    // Below the budget the same value is substituted whole.
    EXPECT_EQ(parser.apply(QStringLiteral("LONG;")).size(), 100001);
}

TEST(StyleSheetsParserReplace, LimitCountsTheWholeResult)
{
    const QString text = QStringLiteral("A A");
    EXPECT_EQ(CStyleSheetsParser::replaceConstant(text, QStringLiteral("A"), QStringLiteral("bbb"), 7),
              QStringLiteral("bbb bbb"));
    expectError([&] { CStyleSheetsParser::replaceConstant(text, QStringLiteral("A"), QStringLiteral("bbb"), 6); },
                QStringLiteral("Constants expand beyond 6 characters"));
}

TEST(StyleSheetsParserResolve, TokenInsideAnotherWordIsNoReference)
{
    CStyleSheetsParser parser;
    // "A" inside "A_B" or "XA" is not a reference, so this is no cycle.
    parser.parseConstants(QStringLiteral("A = A_B XA\nB = A"));
    const CStyleSheetsParser::Constants resolved = parser.resolvedConstants();
    EXPECT_EQ(resolved.value(QStringLiteral("A")), QStringLiteral(" A_B XA"));
    EXPECT_EQ(resolved.value(QStringLiteral("B")), QStringLiteral("  A_B XA"));
}

// --- applying to a style sheet ---

TEST(StyleSheetsParserApply, RealisticSheet)
{
    CStyleSheetsParser parser;
    parser.parseConstants(QStringLiteral("// colours\n"
                                         "MAIN_COLOR=#1e2a38\n"
                                         "ACCENT=#3fa7d6 // buttons and links\n"
                                         "TEXT=white\n"
                                         "\n"
                                         "// sizes\n"
                                         "FONT_SIZE=10pt\n"
                                         "RADIUS=4px\n"
                                         "BUTTON_BORDER=1px solid ACCENT\n"));
    const QString sheet =
        QStringLiteral("QWidget { background-color: MAIN_COLOR; color: TEXT; font-size: FONT_SIZE; }\n"
                       "QPushButton{border:BUTTON_BORDER;border-radius:RADIUS}\n"
                       "QPushButton:hover { background: ACCENT; }\n"
                       "QLabel#ACCENT_LABEL { color: rgb(ACCENT); }\n");
    EXPECT_EQ(parser.apply(sheet),
              QStringLiteral("QWidget { background-color: #1e2a38; color: white; font-size: 10pt; }\n"
                             "QPushButton{border:1px solid #3fa7d6 ;border-radius:4px}\n"
                             "QPushButton:hover { background: #3fa7d6 ; }\n"
                             "QLabel#ACCENT_LABEL { color: rgb(#3fa7d6 ); }\n"));
}

TEST(StyleSheetsParserApply, ConstantNamedPxLeavesLengths)
{
    CStyleSheetsParser parser;
    parser.addConstant(QStringLiteral("px"), QStringLiteral("3px"));
    EXPECT_EQ(parser.apply(QStringLiteral("margin: 10px px;")), QStringLiteral("margin: 10px 3px;"));
}

TEST(StyleSheetsParserApply, NoConstantsLeavesSheet)
{
    const CStyleSheetsParser parser;
    const QString sheet = QStringLiteral("QWidget { color: red; }");
    EXPECT_EQ(parser.apply(sheet), sheet);
}

// --- reading a constants file ---

TEST(StyleSheetsParserRead, ReadsFileWithWindowsLineEnds)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path =
        writeFile(dir, QStringLiteral("constants.txt"), "// header\r\nCOLOR = red\r\nSIZE=2px\r\n\r\n");
    CStyleSheetsParser parser;
    parser.readConstants(path);
    ASSERT_EQ(parser.constants().size(), 2);
    EXPECT_EQ(parser.constants().value(QStringLiteral("COLOR")), QStringLiteral(" red"));
    EXPECT_EQ(parser.constants().value(QStringLiteral("SIZE")), QStringLiteral("2px"));
}

TEST(StyleSheetsParserRead, MissingFileLogsAndAddsNothing)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    testutils::CLogCapture log;
    CStyleSheetsParser parser;
    parser.readConstants(dir.filePath(QStringLiteral("absent.txt")));
    EXPECT_TRUE(parser.constants().isEmpty());
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Debug"), QStringLiteral("qutils/stylesheetsparser.cpp")));
    EXPECT_TRUE(log.text().contains(QLatin1String("absent.txt")));
}

TEST(StyleSheetsParserRead, EmptyFileLogsAndAddsNothing)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = writeFile(dir, QStringLiteral("empty.txt"), QByteArray());
    testutils::CLogCapture log;
    CStyleSheetsParser parser;
    parser.readConstants(path);
    EXPECT_TRUE(parser.constants().isEmpty());
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Debug"), QStringLiteral("qutils/stylesheetsparser.cpp")));
}

TEST(StyleSheetsParserRead, BrokenFileThrowsWithItsLine)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = writeFile(dir, QStringLiteral("broken.txt"), "A = 1\n\n\n = red\n");
    CStyleSheetsParser parser;
    expectError([&] { parser.readConstants(path); }, QStringLiteral("Empty constant name, line 3"));
    EXPECT_TRUE(parser.constants().isEmpty());
}
