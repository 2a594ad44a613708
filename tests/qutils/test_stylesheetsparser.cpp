#include "qutils/debugutils.h"
#include "qutils/exception.h"
#include "qutils/stylesheetsparser.h"

#include <QFile>
#include <QTemporaryDir>

#include "logcapture.h"

#include <gtest/gtest.h>

using qutils::CException;
using qutils::CStyleSheetsParser;
using Constants = CStyleSheetsParser::Constants;

namespace
{

// Runs f, expecting a CException with code 1287 and this text (or, when
// prefixOnly, a text that starts with it).
template <typename F> void expectError(F f, const QString& message, bool prefixOnly = false)
{
    try
    {
        f();
        ADD_FAILURE() << "no exception, expected: " << message.toStdString();
    }
    catch (const CException& e)
    {
        if (prefixOnly)
        {
            EXPECT_TRUE(e.message().startsWith(message)) << e.message().toStdString();
        }
        else
        {
            EXPECT_EQ(e.message().toStdString(), message.toStdString());
        }
        EXPECT_EQ(e.code(), 1287);
    }
}

Constants parsed(const QString& text)
{
    CStyleSheetsParser parser;
    parser.parseConstants(text);
    return parser.constants();
}

QString str(const char* text)
{
    return QString::fromUtf8(text);
}

} // namespace

TEST(StyleSheetsParser, ParsesDefinitions)
{
    const struct
    {
        const char* text;
        Constants expected;
    } cases[] = {
        // The blanks after "=" stay part of the value.
        {"COLOR_1 = #fff\nBORDER = 1px solid COLOR_1\n",
         {{str("COLOR_1"), str(" #fff")}, {str("BORDER"), str(" 1px solid COLOR_1")}}},
        // The name is trimmed, the value split at the first "=".
        {"\t 2ND_name\t=a=b \nX=\n", {{str("2ND_name"), str("a=b ")}, {str("X"), QString()}}},
        // The first "//" cuts, even inside what looks like a value; the blank before it stays.
        {"COLOR = red // main colour\nURL = a//b=c", {{str("COLOR"), str(" red ")}, {str("URL"), str(" a")}}},
        {"\n   \n\t\n// just a note = not a constant\n  // indented\nA = 1\n\n", {{str("A"), str(" 1")}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(parsed(str(c.text)), c.expected) << c.text;
}

TEST(StyleSheetsParser, BadTextThrowsWithItsZeroBasedLineAndKeepsNothing)
{
    const QString syntax = QStringLiteral("CONSTANT_NAME = VALUE expected.");
    const struct
    {
        const char* text;
        QString message;
    } cases[] = {
        {"A = 1\nA = 2", QStringLiteral("Key already exists.")},
        {"A = 1\n  A= 2", QStringLiteral("Key already exists.")}, // names are trimmed before comparing
        {"A = 1\nB = 2\n// note\n = red", QStringLiteral("Empty constant name, line 3")},
        {"=x", QStringLiteral("Empty constant name, line 0")},
        {"A = 1\nMY-COLOR = red", QStringLiteral("Constant name is incorrect, line 1")},
        {"MY COLOR = red", QStringLiteral("Constant name is incorrect, line 0")},
        {"\n\n\nCOLOR\u00e9 = red", QStringLiteral("Constant name is incorrect, line 3")},
        {"A = 1\n\njust text", QStringLiteral("Wrong syntax, line 2, ") + syntax},
        // An "=" that only appears in the comment does not make a definition.
        {"NAME // = value", QStringLiteral("Wrong syntax, line 0, ") + syntax},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.text);
        CStyleSheetsParser parser;
        expectError([&] { parser.parseConstants(str(c.text)); }, c.message);
        EXPECT_TRUE(parser.constants().isEmpty());
    }

    // A failing text keeps what earlier texts defined, and may not redefine it.
    CStyleSheetsParser parser;
    parser.parseConstants(QStringLiteral("A = 1"));
    expectError([&] { parser.parseConstants(QStringLiteral("B = 2\nC-D = 3")); },
                QStringLiteral("Constant name is incorrect, line 1"));
    EXPECT_EQ(parser.constants(), (Constants{{str("A"), str(" 1")}}));
    expectError([&] { parser.parseConstants(QStringLiteral("A = 3")); },
                QStringLiteral("Key already exists."));
}

TEST(StyleSheetsParser, AddAndSetConstants)
{
    CStyleSheetsParser parser;
    parser.addConstant(QStringLiteral("B"), QStringLiteral("2"));
    parser.addConstant(QStringLiteral("A"), QStringLiteral("1"));
    expectError([&] { parser.addConstant(QStringLiteral("A"), QStringLiteral("9")); },
                QStringLiteral("Key already exists."));
    parser.setConstant(QStringLiteral("B"), QStringLiteral("3"));
    expectError([&] { parser.setConstant(QStringLiteral("C"), QStringLiteral("4")); },
                QStringLiteral("Key does not exist."));
    EXPECT_EQ(parser.constants(), (Constants{{str("A"), str("1")}, {str("B"), str("3")}}));
}

TEST(StyleSheetsParser, FindsWholeTokensOnly)
{
    const struct
    {
        const char* text;
        const char* name;
        int from;
        int found;
    } cases[] = {
        {"BORDER_WIDTH XBORDER BORDERX", "BORDER", 0, -1},
        {"XBORDER BORDER", "BORDER", 0, 8},
        {"BORDER", "BORDER", 0, 0},
        {"10px px", "px", 0, 5},
        {"a,B b.B B-x", "B", 0, -1},
        {"abc", "", 0, -1},
        // The search starts at the given index.
        {"A:A;A", "A", 0, 0},
        {"A:A;A", "A", 1, 2},
        {"A:A;A", "A", 3, 4},
        {"A:A;A", "A", 5, -1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CStyleSheetsParser::findConstant(str(c.text), str(c.name), c.from), c.found)
            << c.text << " / " << c.name << " from " << c.from;

    // Exactly twelve separators end a token.
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

TEST(StyleSheetsParser, ReplacesWholeTokensOnly)
{
    const struct
    {
        const char* text;
        const char* name;
        const char* value;
        const char* expected;
    } cases[] = {
        {"width: 10px; height: px;px", "px", "4px", "width: 10px; height: 4px;4px"},
        {"{BORDER_WIDTH:BORDER;XBORDER=(BORDER)}", "BORDER", "1px", "{BORDER_WIDTH:1px;XBORDER=(1px)}"},
        {"nothing here", "N", "x", "nothing here"},
        // Inserted values are not searched again, else these would never end or grow.
        {"A;A", "A", "A A", "A A;A A"},
        {"B", "B", "x B", "x B"},
        {"A A", "A", "bbb", "bbb bbb"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CStyleSheetsParser::replaceConstant(str(c.text), str(c.name), str(c.value)).toStdString(),
                  c.expected);
    // The limit counts the whole result.
    EXPECT_EQ(CStyleSheetsParser::replaceConstant(str("A A"), str("A"), str("bbb"), 7), str("bbb bbb"));
    expectError([] { CStyleSheetsParser::replaceConstant(str("A A"), str("A"), str("bbb"), 6); },
                QStringLiteral("Constants expand beyond 6 characters"));

    testutils::CLogCapture log;
    EXPECT_EQ(CStyleSheetsParser::replaceConstant(QStringLiteral("a b"), QString(), QStringLiteral("x")),
              QStringLiteral("a b"));
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Debug"), QStringLiteral("qutils/stylesheetsparser.cpp")));
}

TEST(StyleSheetsParser, ResolvesConstantsThatNameConstants)
{
    CStyleSheetsParser parser;
    parser.parseConstants(QStringLiteral("COLOR_1 = #fff\nBORDER = 1px solid COLOR_1\n"
                                         "FRAME = BORDER;COLOR_1\nWIDE = FRAME FRAME\n"
                                         // "A" inside "A_B" or "XA" is no reference, so this is no cycle.
                                         "A = A_B XA\nB = A"));
    const Constants resolved = parser.resolvedConstants();
    EXPECT_EQ(resolved.value(QStringLiteral("BORDER")), QStringLiteral(" 1px solid  #fff"));
    EXPECT_EQ(resolved.value(QStringLiteral("FRAME")), QStringLiteral("  1px solid  #fff; #fff"));
    EXPECT_EQ(resolved.value(QStringLiteral("WIDE")),
              QStringLiteral("   1px solid  #fff; #fff   1px solid  #fff; #fff"));
    EXPECT_EQ(resolved.value(QStringLiteral("A")), QStringLiteral(" A_B XA"));
    EXPECT_EQ(resolved.value(QStringLiteral("B")), QStringLiteral("  A_B XA"));
    // The defined values themselves are left as written.
    EXPECT_EQ(parser.constants().value(QStringLiteral("BORDER")), QStringLiteral(" 1px solid COLOR_1"));

    CStyleSheetsParser exact;
    exact.addConstant(QStringLiteral("COLOR_1"), QStringLiteral("#fff"));
    exact.addConstant(QStringLiteral("BORDER"), QStringLiteral(" 1px solid COLOR_1"));
    EXPECT_EQ(exact.resolvedConstants().value(QStringLiteral("BORDER")), QStringLiteral(" 1px solid #fff"));
}

TEST(StyleSheetsParser, CyclesThrow)
{
    for (const char* text : {"A = B\nB = A", "SELF = 1px SELF", "A = B\nB = C\nC = A\nD = 1",
                             "OK = 1\nA = B\nB = A\nUSER = OK A"})
    {
        SCOPED_TRACE(text);
        CStyleSheetsParser parser;
        parser.parseConstants(str(text));
        expectError([&] { parser.resolvedConstants(); }, QStringLiteral("Constants circular dependence"));
        expectError([&] { parser.apply(QStringLiteral("x { color: OK; }")); },
                    QStringLiteral("Constants circular dependence"));
    }
}

TEST(StyleSheetsParser, GrowthStopsAtTheBudget)
{
    // Sixty lines whose values double at every step would name 2^60 tokens.
    QString text = QStringLiteral("C0 = x\n");
    for (int i = 1; i < 60; ++i)
        text += QStringLiteral("C%1 = C%2 C%2\n").arg(i).arg(i - 1);
    CStyleSheetsParser parser;
    parser.parseConstants(text);
    qint64 own = 0;
    for (const QString& value : parser.constants())
        own += value.size();
    const QString beyond = QStringLiteral("Constants expand beyond %1 characters");
    expectError([&] { parser.resolvedConstants(); },
                beyond.arg(own + CStyleSheetsParser::MaxResolutionGrowth));
    expectError([&] { parser.apply(QStringLiteral("x { color: C59; }")); },
                QStringLiteral("Constants expand beyond "), true);
    // The first twelve steps stay inside the budget and resolve in full.
    CStyleSheetsParser shorter;
    shorter.parseConstants(text.section(QLatin1Char('\n'), 0, 11));
    EXPECT_EQ(shorter.resolvedConstants().value(QStringLiteral("C11")).count(QLatin1Char('x')), 1 << 11);

    // One allowed long value, named by many tokens of a sheet.
    CStyleSheetsParser longValue;
    longValue.addConstant(QStringLiteral("LONG"), QString(100000, QLatin1Char('a')));
    const QString sheet = QStringLiteral("LONG ").repeated(100);
    expectError([&] { longValue.apply(sheet); },
                beyond.arg(sheet.size() + CStyleSheetsParser::MaxApplyGrowth));
    // Below the budget the same value is substituted whole.
    EXPECT_EQ(longValue.apply(QStringLiteral("LONG;")).size(), 100001);
}

TEST(StyleSheetsParser, AppliesToARealisticSheet)
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
                                         "BUTTON_BORDER=1px solid ACCENT\n"
                                         "px=3px\n"));
    const QString sheet =
        QStringLiteral("QWidget { background-color: MAIN_COLOR; color: TEXT; font-size: FONT_SIZE; }\n"
                       "QPushButton{border:BUTTON_BORDER;border-radius:RADIUS}\n"
                       "QPushButton:hover { background: ACCENT; margin: 10px px; }\n"
                       "QLabel#ACCENT_LABEL { color: rgb(ACCENT); }\n");
    EXPECT_EQ(parser.apply(sheet).toStdString(),
              "QWidget { background-color: #1e2a38; color: white; font-size: 10pt; }\n"
              "QPushButton{border:1px solid #3fa7d6 ;border-radius:4px}\n"
              "QPushButton:hover { background: #3fa7d6 ; margin: 10px 3px; }\n"
              "QLabel#ACCENT_LABEL { color: rgb(#3fa7d6 ); }\n");
    EXPECT_EQ(CStyleSheetsParser().apply(sheet), sheet) << "no constants leave the sheet";
}

TEST(StyleSheetsParser, ReadsConstantsFiles)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const auto file = [&](const char* name, const QByteArray& content)
    {
        QFile f(dir.filePath(str(name)));
        EXPECT_TRUE(f.open(QIODevice::WriteOnly) && f.write(content) == content.size());
        return f.fileName();
    };
    CStyleSheetsParser parser;
    parser.readConstants(file("constants.txt", "// header\r\nCOLOR = red\r\nSIZE=2px\r\n\r\n"));
    EXPECT_EQ(parser.constants(), (Constants{{str("COLOR"), str(" red")}, {str("SIZE"), str("2px")}}));

    const QString broken = file("broken.txt", "A = 1\n\n\n = red\n");
    CStyleSheetsParser failing;
    expectError([&] { failing.readConstants(broken); }, QStringLiteral("Empty constant name, line 3"));
    EXPECT_TRUE(failing.constants().isEmpty());

    // A missing or empty file adds nothing and is only logged, a missing one by its name.
    const QString absent = dir.filePath(QStringLiteral("absent.txt"));
    for (const QString& path : {absent, file("empty.txt", QByteArray())})
    {
        testutils::CLogCapture log;
        CStyleSheetsParser quiet;
        quiet.readConstants(path);
        EXPECT_TRUE(quiet.constants().isEmpty());
        EXPECT_TRUE(log.hasRecord(QStringLiteral("Debug"), QStringLiteral("qutils/stylesheetsparser.cpp")));
        EXPECT_TRUE(path != absent || log.text().contains(QStringLiteral("absent.txt")))
            << log.text().toStdString();
    }
}
