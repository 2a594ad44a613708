// quorvex-cli run as a program, on photos of simulated cameras whose truth is
// known: learning, analysis with its JSON, CSV and table outputs, exit codes,
// interruption and the demo; plus the small formatting pieces directly.
#include "commandline.h"
#include "identifyformat.h"
#include "learnjob.h"
#include "photoinputs.h"
#include "progressline.h"
#include "resultformat.h"
#include "validation.h"

#include "camsim/camera.h"
#include "camsim/imagefile.h"

#include <QDateTime>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <vector>

#ifdef Q_OS_UNIX
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace
{

struct SRun
{
    int exitCode = -1;
    bool normalExit = false;
    QString out;
    QString err;
};

QStringList lines(const QString& text)
{
    return text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

// The tool's log and settings go to the test's folder, never the user's.
QProcessEnvironment childEnvironment(const QString& home)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/data"));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/config"));
    return env;
}

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    file.write(bytes);
}

// The text of a PDF as a reader extracts it, each page's whitespace folded
// to single spaces (table cells wrap), pages separated by form feeds.
QString pdfText(const QString& path)
{
    QProcess process;
    process.start(QStringLiteral("pdftotext"), {path, QStringLiteral("-")});
    if (!process.waitForFinished(60000))
        return QString();
    QStringList pages = QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\f'));
    for (QString& page : pages)
        page = page.simplified();
    return pages.join(QLatin1Char('\f'));
}

QByteArray readBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// RFC 4180: fields separated by commas, quoted fields may hold commas, line
// breaks and doubled quotes.
QList<QStringList> parseCsv(const QString& text)
{
    QList<QStringList> rows;
    QStringList row;
    QString field;
    bool quoted = false;
    for (int i = 0; i < text.size(); ++i)
    {
        const QChar c = text.at(i);
        if (quoted)
        {
            if (c == QLatin1Char('"') && i + 1 < text.size() && text.at(i + 1) == QLatin1Char('"'))
            {
                field += c;
                ++i;
            }
            else if (c == QLatin1Char('"'))
                quoted = false;
            else
                field += c;
        }
        else if (c == QLatin1Char('"'))
            quoted = true;
        else if (c == QLatin1Char(','))
        {
            row.append(field);
            field.clear();
        }
        else if (c == QLatin1Char('\n'))
        {
            row.append(field);
            rows.append(row);
            row.clear();
            field.clear();
        }
        else
            field += c;
    }
    if (!field.isEmpty() || !row.isEmpty())
    {
        row.append(field);
        rows.append(row);
    }
    return rows;
}

const QStringList JsonKeys = {QStringLiteral("path"),        QStringLiteral("matched"),
                              QStringLiteral("compared"),    QStringLiteral("probability"),
                              QStringLiteral("correlation"), QStringLiteral("pce"),
                              QStringLiteral("scale"),       QStringLiteral("status"),
                              QStringLiteral("class"),       QStringLiteral("reason"),
                              QStringLiteral("sha256"),      QStringLiteral("index"),
                              QStringLiteral("total"),       QStringLiteral("fingerprint"),
                              QStringLiteral("orientation")};
const QStringList MatchClasses = {QStringLiteral("very high"), QStringLiteral("high"),
                                  QStringLiteral("medium"), QStringLiteral("low")};

// Parses JSON lines, failing the test on any line that is not an object with
// exactly the documented keys, in their order.
QList<QJsonObject> parseJsonLines(const QString& text)
{
    QList<QJsonObject> objects;
    for (const QString& line : lines(text))
    {
        QJsonParseError error{};
        const QJsonDocument doc = QJsonDocument::fromJson(line.toUtf8(), &error);
        EXPECT_EQ(error.error, QJsonParseError::NoError) << line.toStdString();
        EXPECT_TRUE(doc.isObject()) << line.toStdString();
        QStringList keys = doc.object().keys();
        QStringList expected = JsonKeys;
        keys.sort();
        expected.sort();
        EXPECT_EQ(keys, expected) << line.toStdString();
        int at = 0;
        for (const QString& key : JsonKeys)
        {
            const int next = line.indexOf(QLatin1Char('"') + key + QStringLiteral("\":"), at);
            EXPECT_GE(next, at) << key.toStdString() << " out of order in " << line.toStdString();
            at = qMax(at, next);
        }
        objects.append(doc.object());
    }
    return objects;
}

enum ETruth
{
    SameCamera,
    OtherUnit,
};

} // namespace

// One set of photos for every test: reference photos of camera A, a
// questioned folder (its name holds a comma and quotes) with photos of A and
// of B, another unit of the same make and model, and A's fingerprint learned
// through the tool.
class CliTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<QTemporaryDir>();
        ASSERT_TRUE(s_dir->isValid());
        const QDir root(s_dir->path());
        for (const char* sub : {"refs", "questioned, \"mixed\"", "extra", "empty"})
            ASSERT_TRUE(root.mkpath(QString::fromLatin1(sub)));
        s_questionedFolder = root.filePath(QStringLiteral("questioned, \"mixed\""));

        const camsim::Camera a(unit(1));
        const camsim::Camera b(unit(2));
        const camsim::SceneKind refScenes[] = {camsim::SceneKind::Flat, camsim::SceneKind::Gradient,
                                               camsim::SceneKind::Natural, camsim::SceneKind::Natural};
        for (int i = 0; i < 4; ++i)
        {
            const QString path = root.filePath(QStringLiteral("refs/ref-%1.jpg").arg(i + 1));
            shoot(a, refScenes[i], 10 + static_cast<uint64_t>(i), path);
            s_references.append(path);
        }
        // Sorted by name this is also the order the folder is analyzed in;
        // B sees A's scenes, so only the sensor can tell them apart.
        struct
        {
            const camsim::Camera* camera;
            ETruth truth;
            camsim::SceneKind scene;
            uint64_t seed;
            int rotation;
            const char* name;
        } const plan[] = {
            {&a, SameCamera, camsim::SceneKind::Natural, 31, 0, "a-1.jpg"},
            {&a, SameCamera, camsim::SceneKind::Natural, 32, 90, "a-2-rotated.jpg"},
            {&a, SameCamera, camsim::SceneKind::Edges, 33, 0, "a-3.jpg"},
            {&b, OtherUnit, camsim::SceneKind::Natural, 31, 0, "b-1.jpg"},
            {&b, OtherUnit, camsim::SceneKind::Edges, 33, 0, "b-2.jpg"},
        };
        for (const auto& step : plan)
        {
            const QString path = QDir(s_questionedFolder).filePath(QString::fromLatin1(step.name));
            shoot(*step.camera, step.scene, step.seed, path, step.rotation);
            s_questioned.append(path);
            s_truth.append(step.truth);
        }

        // A photo of A whose EXIF names another model, a file that is no
        // photo, and a text file.
        camsim::ShotConfig relabelled;
        relabelled.scene = camsim::SceneKind::Natural;
        relabelled.sceneSeed = 41;
        relabelled.exifModel = "QX-9";
        a.shoot(relabelled, root.filePath(QStringLiteral("extra/relabelled.jpg")).toStdString());
        // A larger sensor's photo: no crop or reduction of the fingerprint's image.
        camsim::CameraConfig larger = unit(2);
        larger.width = 1280;
        larger.height = 1024; // not 4:3: no resize of the fingerprint's image either
        shoot(camsim::Camera(larger), camsim::SceneKind::Natural, 42, root.filePath(QStringLiteral("extra/larger.jpg")));
        writeBytes(root.filePath(QStringLiteral("extra/broken.jpg")),
                   QByteArray::fromRawData("\xff\xd8\xff\xe0 not a photo", 16));
        writeBytes(root.filePath(QStringLiteral("extra/notes.txt")), "notes");

        // A folder with a subfolder, for --recursive.
        ASSERT_TRUE(root.mkpath(QStringLiteral("nested/inner")));
        ASSERT_TRUE(QFile::copy(s_questioned.at(2), root.filePath(QStringLiteral("nested/top.jpg"))));
        ASSERT_TRUE(QFile::copy(s_questioned.at(0), root.filePath(QStringLiteral("nested/inner/a.jpg"))));
        ASSERT_TRUE(QFile::copy(s_questioned.at(3), root.filePath(QStringLiteral("nested/inner/b.JPG"))));

        s_fingerprint = root.filePath(QStringLiteral("camera-a.fnp"));
        s_learn = run({QStringLiteral("learn"), QStringLiteral("-o"), s_fingerprint,
                       root.filePath(QStringLiteral("refs"))});
    }

    static void TearDownTestSuite() { s_dir.reset(); }

    static camsim::CameraConfig unit(uint64_t seed)
    {
        camsim::CameraConfig c;
        c.width = 1024;
        c.height = 768;
        c.unitSeed = seed;
        return c;
    }

    static void shoot(const camsim::Camera& camera, camsim::SceneKind scene, uint64_t seed,
                      const QString& path, int rotation = 0)
    {
        camsim::ShotConfig shot;
        shot.scene = scene;
        shot.sceneSeed = seed;
        shot.rotation = rotation;
        camera.shoot(shot, path.toStdString());
    }

    static SRun run(const QStringList& arguments, int timeoutMs = 120000,
                    const QPair<QString, QString>& variable = QPair<QString, QString>())
    {
        QProcess process;
        QProcessEnvironment env = childEnvironment(s_dir->path());
        if (!variable.first.isEmpty())
            env.insert(variable.first, variable.second);
        process.setProcessEnvironment(env);
        process.setWorkingDirectory(s_dir->path());
        process.start(QStringLiteral(QUORVEX_CLI_PATH), arguments);
        SRun result;
        if (!process.waitForStarted() || !process.waitForFinished(timeoutMs))
        {
            process.kill();
            process.waitForFinished();
            return result;
        }
        result.normalExit = process.exitStatus() == QProcess::NormalExit;
        result.exitCode = process.exitCode();
        result.out = QString::fromUtf8(process.readAllStandardOutput());
        result.err = QString::fromUtf8(process.readAllStandardError());
        return result;
    }

    static QString path(const QString& relative) { return QDir(s_dir->path()).filePath(relative); }

    static std::unique_ptr<QTemporaryDir> s_dir;
    static QString s_questionedFolder;
    static QStringList s_references;
    static QStringList s_questioned;
    static QList<ETruth> s_truth;
    static QString s_fingerprint;
    static SRun s_learn;
};

std::unique_ptr<QTemporaryDir> CliTest::s_dir;
QString CliTest::s_questionedFolder;
QStringList CliTest::s_references;
QStringList CliTest::s_questioned;
QList<ETruth> CliTest::s_truth;
QString CliTest::s_fingerprint;
SRun CliTest::s_learn;

TEST_F(CliTest, LearnReportsEveryPhotoThenTheProperties)
{
    ASSERT_EQ(s_learn.exitCode, 0) << s_learn.err.toStdString();
    ASSERT_TRUE(QFileInfo(s_fingerprint).isFile());
    const QStringList out = lines(s_learn.out);
    // One line per reference photo in the folder's sorted order, with a number.
    for (int i = 0; i < 4; ++i)
    {
        ASSERT_LT(i, out.size());
        const QRegularExpressionMatch m =
            QRegularExpression(QStringLiteral("^photo (\\d)/4  NMSE (\\S+)  (.+)$")).match(out.at(i));
        ASSERT_TRUE(m.hasMatch()) << out.at(i).toStdString();
        EXPECT_EQ(m.captured(1).toInt(), i + 1);
        bool ok = false;
        const double nmse = m.captured(2).toDouble(&ok);
        EXPECT_TRUE(ok) << out.at(i).toStdString();
        EXPECT_GT(nmse, 0.0);
        EXPECT_LE(nmse, 1.0);
        EXPECT_EQ(QFileInfo(m.captured(3)).absoluteFilePath(),
                  QFileInfo(s_references.at(i)).absoluteFilePath());
    }
    EXPECT_EQ(out.at(0), QStringLiteral("photo 1/4  NMSE 1.0000  ") + path(QStringLiteral("refs/ref-1.jpg")))
        << "the first photo is all new; paths as given";
    EXPECT_TRUE(s_learn.out.contains(QStringLiteral("Fingerprint saved to ") + s_fingerprint));
    EXPECT_TRUE(
        s_learn.out.contains(QRegularExpression(QStringLiteral("Number of reference photos:\\s+4\\n"))));
    EXPECT_TRUE(s_learn.out.contains(QRegularExpression(QStringLiteral("Photo width:\\s+1024\\n"))));
    EXPECT_TRUE(
        s_learn.out.contains(QRegularExpression(QStringLiteral("Camera model \\(EXIF\\):\\s+QX-1\\n"))));
    EXPECT_FALSE(QFile::exists(path(QStringLiteral("default.log")))) << "no log in the working folder";
}

TEST_F(CliTest, InfoPrintsThePropertiesAndTheirJson)
{
    const SRun json = run({QStringLiteral("info"), QStringLiteral("--json"), s_fingerprint});
    ASSERT_EQ(json.exitCode, 0) << json.err.toStdString();
    const QJsonObject object = QJsonDocument::fromJson(json.out.toUtf8()).object();
    EXPECT_EQ(object.value(QStringLiteral("width")).toInt(), 1024);
    EXPECT_EQ(object.value(QStringLiteral("height")).toInt(), 768);
    EXPECT_EQ(object.value(QStringLiteral("trainingimagescount")).toInt(), 4);
    EXPECT_EQ(object.value(QStringLiteral("manufacturer")).toString(), QStringLiteral("Veltrano"));
    EXPECT_EQ(object.value(QStringLiteral("model")).toString(), QStringLiteral("QX-1"));
    EXPECT_EQ(object.value(QStringLiteral("lensinfo")).toString(), QStringLiteral("unknown"));
    EXPECT_GT(object.value(QStringLiteral("nmse")).toDouble(), 0.0);
    EXPECT_LT(object.value(QStringLiteral("nmse")).toDouble(), 1.0);
    EXPECT_TRUE(QDateTime::fromString(object.value(QStringLiteral("creationdate")).toString(), Qt::ISODate)
                    .isValid());
    EXPECT_TRUE(object.contains(QStringLiteral("description")));

    const SRun plain = run({QStringLiteral("info"), s_fingerprint});
    ASSERT_EQ(plain.exitCode, 0);
    EXPECT_TRUE(plain.out.contains(QRegularExpression(QStringLiteral("Photo height:\\s+768\\n"))));
    EXPECT_TRUE(plain.out.contains(
        QRegularExpression(QStringLiteral("Camera manufacturer \\(EXIF\\):\\s+Veltrano\\n"))));
}

TEST_F(CliTest, AnalyzeJsonLinesAgreeWithTheTruth)
{
    const SRun result = run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint,
                             QStringLiteral("--json"), QStringLiteral("-"), s_questionedFolder});
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    const QList<QJsonObject> objects = parseJsonLines(result.out);
    ASSERT_EQ(objects.size(), s_questioned.size()) << "only JSON on standard output";
    for (int i = 0; i < objects.size(); ++i)
    {
        const QJsonObject& o = objects.at(i);
        SCOPED_TRACE(o.value(QStringLiteral("path")).toString().toStdString());
        EXPECT_EQ(o.value(QStringLiteral("path")).toString(),
                  QFileInfo(s_questioned.at(i)).absoluteFilePath())
            << "input order, absolute";
        EXPECT_EQ(o.value(QStringLiteral("status")).toString(), QStringLiteral("success"));
        EXPECT_EQ(o.value(QStringLiteral("index")).toInt(-1), i);
        EXPECT_EQ(o.value(QStringLiteral("total")).toInt(), 5);
        EXPECT_EQ(o.value(QStringLiteral("fingerprint")).toString(), QFileInfo(s_fingerprint).absoluteFilePath());
        if (s_truth.at(i) == SameCamera)
        {
            EXPECT_EQ(o.value(QStringLiteral("orientation")).toInt(), i == 1 ? 270 : 0) << "a-2 was shot turned";
            EXPECT_TRUE(o.value(QStringLiteral("matched")).toBool());
            EXPECT_TRUE(MatchClasses.contains(o.value(QStringLiteral("class")).toString()));
            EXPECT_GE(o.value(QStringLiteral("pce")).toDouble(), 60.0);
            EXPECT_GT(o.value(QStringLiteral("probability")).toDouble(), 0.95);
            EXPECT_GT(o.value(QStringLiteral("correlation")).toDouble(), 0.0);
        }
        else
        {
            EXPECT_FALSE(o.value(QStringLiteral("matched")).toBool());
            EXPECT_EQ(o.value(QStringLiteral("class")).toString(), QStringLiteral("not found"));
            EXPECT_LT(o.value(QStringLiteral("pce")).toDouble(), 60.0);
        }
    }
    // The summary goes to standard error when standard output carries JSON.
    EXPECT_TRUE(result.err.contains(QStringLiteral("Photos analyzed: 5/5\n")));
    EXPECT_TRUE(result.err.contains(QStringLiteral("Fingerprints found: 3\n")));
    EXPECT_TRUE(result.err.contains(QStringLiteral("Fingerprints not found: 2\n")));

    // The same results on one thread, since each photo is judged on its own.
    const SRun single =
        run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint, QStringLiteral("--threads"),
             QStringLiteral("1"), QStringLiteral("--json"), QStringLiteral("-"), s_questionedFolder});
    ASSERT_EQ(single.exitCode, 0);
    EXPECT_EQ(single.out, result.out);
    EXPECT_TRUE(single.err.contains(QStringLiteral("on 1 thread")));
}

TEST_F(CliTest, TableCsvAndJsonFilesTellTheSameStory)
{
    const QString csvPath = path(QStringLiteral("results.csv"));
    const QString jsonPath = path(QStringLiteral("results.jsonl"));
    const SRun result =
        run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint, QStringLiteral("--csv"), csvPath,
             QStringLiteral("--json"), jsonPath, QStringLiteral("--report"),
             path(QStringLiteral("report.pdf")), s_questionedFolder});
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    // The report: every photo, the summary, the footer on every page.
    const QString report = pdfText(path(QStringLiteral("report.pdf")));
    EXPECT_TRUE(report.contains(QStringLiteral("Quorvex Report"))) << result.err.toStdString();
    EXPECT_TRUE(report.contains(QStringLiteral("Fingerprints not found 2")));
    // A name wrapped at its hyphen comes back joined without it.
    for (const QString& name : s_questioned)
        EXPECT_TRUE(QString(report).remove(QLatin1Char('-')).contains(QFileInfo(name).fileName().remove(QLatin1Char('-'))))
            << name.toStdString();
    const QStringList pages = report.split(QLatin1Char('\f'), Qt::SkipEmptyParts);
    ASSERT_GE(pages.size(), 1);
    for (const QString& page : pages)
        EXPECT_TRUE(page.contains(QStringLiteral("VELTRANO Labs"))) << page.toStdString();
    EXPECT_TRUE(result.out.contains(QStringLiteral("Report: ")));

    // The human table: a header, one line per photo with its path as given, the summary.
    const QStringList out = lines(result.out);
    ASSERT_GE(out.size(), 1 + 5 + 5);
    EXPECT_TRUE(out.at(0).startsWith(QStringLiteral("class")));
    for (int i = 0; i < 5; ++i)
    {
        const QString& line = out.at(1 + i);
        EXPECT_TRUE(line.endsWith(QStringLiteral("  ") + s_questioned.at(i))) << line.toStdString();
        EXPECT_EQ(line.startsWith(QStringLiteral("not found")), s_truth.at(i) == OtherUnit)
            << line.toStdString();
        EXPECT_TRUE(line.contains(QRegularExpression(QStringLiteral("\\s0\\.\\d{6}\\s+-?\\d+\\.\\d\\s"))))
            << "probability and PCE: " << line.toStdString();
    }
    EXPECT_TRUE(out.contains(QStringLiteral("Photos analyzed: 5/5")));
    EXPECT_TRUE(out.contains(QStringLiteral("Fingerprints found: 3")));
    EXPECT_TRUE(out.contains(QStringLiteral("Fingerprints not found: 2")));
    EXPECT_TRUE(result.out.contains(QRegularExpression(QStringLiteral("Time elapsed: \\d+\\.\\d\\d s\\n"))));
    EXPECT_TRUE(result.out.contains(
        QRegularExpression(QStringLiteral("Average time per image: \\d+\\.\\d\\d s\\n"))));

    const QList<QJsonObject> json = parseJsonLines(QString::fromUtf8(readBytes(jsonPath)));
    ASSERT_EQ(json.size(), 5);

    const QString csvText = QString::fromUtf8(readBytes(csvPath));
    const QStringList rawLines = lines(csvText);
    ASSERT_EQ(rawLines.size(), 6);
    EXPECT_EQ(rawLines.at(0),
              QStringLiteral("path,matched,compared,probability,correlation,pce,scale,status,class,reason,sha256,"
                             "index,total,fingerprint,orientation"));
    // The folder's comma and quotes force quoting, with the quotes doubled.
    EXPECT_TRUE(rawLines.at(1).startsWith(QStringLiteral("\"") + s_dir->path()));
    EXPECT_TRUE(rawLines.at(1).contains(QStringLiteral("questioned, \"\"mixed\"\"/a-1.jpg\",")));
    const QList<QStringList> rows = parseCsv(csvText);
    ASSERT_EQ(rows.size(), 6);
    for (int i = 0; i < 5; ++i)
    {
        const QStringList& row = rows.at(i + 1);
        ASSERT_EQ(row.size(), 15) << rawLines.at(i + 1).toStdString();
        const QJsonObject& o = json.at(i);
        EXPECT_EQ(row.at(0), QFileInfo(s_questioned.at(i)).absoluteFilePath());
        EXPECT_EQ(row.at(0), o.value(QStringLiteral("path")).toString());
        EXPECT_EQ(row.at(1), o.value(QStringLiteral("matched")).toBool() ? QStringLiteral("true")
                                                                         : QStringLiteral("false"));
        EXPECT_EQ(row.at(2), QStringLiteral("true")) << "every photo here was compared";
        EXPECT_DOUBLE_EQ(row.at(3).toDouble(), o.value(QStringLiteral("probability")).toDouble());
        EXPECT_DOUBLE_EQ(row.at(5).toDouble(), o.value(QStringLiteral("pce")).toDouble());
        EXPECT_DOUBLE_EQ(row.at(6).toDouble(), o.value(QStringLiteral("scale")).toDouble());
        EXPECT_EQ(row.at(7), o.value(QStringLiteral("status")).toString());
        EXPECT_EQ(row.at(8), o.value(QStringLiteral("class")).toString());
        EXPECT_EQ(row.at(1) == QLatin1String("true"), s_truth.at(i) == SameCamera);
        EXPECT_EQ(row.at(10), QString::fromLatin1(QCryptographicHash::hash(readBytes(s_questioned.at(i)),
                                                                           QCryptographicHash::Sha256).toHex()));
        EXPECT_EQ(row.at(10), o.value(QStringLiteral("sha256")).toString());
        EXPECT_EQ(row.mid(11), QStringList({QString::number(i), QStringLiteral("5"),
                                            o.value(QStringLiteral("fingerprint")).toString(),
                                            QString::number(o.value(QStringLiteral("orientation")).toInt())}));
    }
}

TEST_F(CliTest, FailingPhotosAreResultsInTheOrderGiven)
{
    const QString relabelled = path(QStringLiteral("extra/relabelled.jpg"));
    const QString broken = path(QStringLiteral("extra/broken.jpg"));
    const QString larger = path(QStringLiteral("extra/larger.jpg"));
    const QStringList photos = {relabelled, broken, s_questioned.at(0), larger,
                                path(QStringLiteral("extra/notes.txt"))};
    const SRun skipping = run(QStringList{QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint,
                                          QStringLiteral("--skip-different-camera"), QStringLiteral("--json"),
                                          QStringLiteral("-")} +
                              photos);
    ASSERT_EQ(skipping.exitCode, 0) << skipping.err.toStdString();
    EXPECT_TRUE(skipping.err.contains(QStringLiteral("notes.txt")))
        << "a file that is no photo is named and skipped";
    const QList<QJsonObject> objects = parseJsonLines(skipping.out);
    ASSERT_EQ(objects.size(), 4);
    // Skipped by the camera rule or by size: not compared, never "not found";
    // a broken file is a failure and stays with the not-found photos.
    const struct
    {
        QString path;
        const char* status;
        const char* className;
        bool compared;
    } expected[] = {
        {relabelled, "inconsistentmetadata", "not compared", false},
        {broken, "brokenimage", "not found", false},
        {s_questioned.at(0), "success", "very high", true},
        {larger, "imagefingerprintinconsistentsize", "not compared", false},
    };
    for (int i = 0; i < 4; ++i)
    {
        const QJsonObject& o = objects.at(i);
        EXPECT_EQ(o.value(QStringLiteral("path")).toString(), expected[i].path);
        EXPECT_EQ(o.value(QStringLiteral("status")).toString(), QLatin1String(expected[i].status));
        EXPECT_EQ(o.value(QStringLiteral("class")).toString(), QLatin1String(expected[i].className));
        EXPECT_EQ(o.value(QStringLiteral("compared")).toBool(), expected[i].compared);
    }
    EXPECT_EQ(objects.at(3).value(QStringLiteral("reason")).toString(),
              QStringLiteral("the photo's size fits the fingerprint at no orientation and scale tried"));
    EXPECT_FALSE(objects.at(3).value(QStringLiteral("matched")).toBool());
    EXPECT_EQ(objects.at(3).value(QStringLiteral("pce")).toDouble(), 0.0);
    EXPECT_TRUE(skipping.err.contains(QStringLiteral("Fingerprints not found: 1\nNot compared: 2\n")))
        << skipping.err.toStdString();
    // Each failure says why, beyond its status text, without repeating the path.
    for (const QJsonObject& failed : {objects.at(0), objects.at(1), objects.at(3)})
    {
        const QString reason = failed.value(QStringLiteral("reason")).toString();
        EXPECT_FALSE(reason.isEmpty());
        EXPECT_FALSE(reason.contains(failed.value(QStringLiteral("path")).toString())) << reason.toStdString();
    }
    EXPECT_TRUE(objects.at(2).value(QStringLiteral("reason")).toString().isEmpty());
    EXPECT_FALSE(objects.at(1).value(QStringLiteral("matched")).toBool());
    EXPECT_TRUE(objects.at(2).value(QStringLiteral("matched")).toBool());

    // Without the camera rule the relabelled photo is matched: it is A's.
    const QString csvPath = path(QStringLiteral("failing.csv"));
    const SRun matching = run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint,
                               QStringLiteral("--csv"), csvPath, relabelled, broken, larger});
    ASSERT_EQ(matching.exitCode, 0);
    const QStringList out = lines(matching.out);
    ASSERT_GE(out.size(), 4);
    EXPECT_EQ(out.at(3), QStringLiteral("not compared            -          -  %1  Not compared: Size is incompatible "
                                        "with fingerprint (the photo's size fits the fingerprint at no "
                                        "orientation and scale tried)")
                             .arg(larger));
    EXPECT_TRUE(matching.out.contains(QStringLiteral("Fingerprints not found: 1\nNot compared: 1\n")));
    const QList<QStringList> rows = parseCsv(QString::fromUtf8(readBytes(csvPath)));
    ASSERT_EQ(rows.size(), 4);
    EXPECT_EQ(rows.at(3).mid(1, 2), (QStringList{QStringLiteral("false"), QStringLiteral("false")}));
    EXPECT_EQ(rows.at(3).mid(7, 2),
              (QStringList{QStringLiteral("imagefingerprintinconsistentsize"), QStringLiteral("not compared")}));
    EXPECT_TRUE(std::any_of(MatchClasses.begin(), MatchClasses.end(),
                            [&](const QString& c) { return out.at(1).startsWith(c + QLatin1Char(' ')); }))
        << out.at(1).toStdString();
    EXPECT_TRUE(out.at(2).startsWith(QStringLiteral("not found")));
    EXPECT_TRUE(out.at(2).contains(QStringLiteral("broken.jpg  (File cannot be opened: JPEG")))
        << out.at(2).toStdString();
}

TEST_F(CliTest, UsageErrorsExitWithOne)
{
    const QString fp = s_fingerprint;
    const QString refs = path(QStringLiteral("refs"));
    const QString notes = path(QStringLiteral("extra/notes.txt"));
    const QString linkToPhoto = path(QStringLiteral("photo-link.csv"));
    QFile::remove(linkToPhoto);
    ASSERT_TRUE(QFile::link(s_questioned.at(0), linkToPhoto));
    const QStringList evidence = {fp, s_questioned.at(0), s_references.at(0), notes};
    QList<QByteArray> before;
    for (const QString& file : evidence)
        before.append(readBytes(file));
    const QList<QStringList> cases = {
        {},
        {QStringLiteral("frobnicate")},
        {QStringLiteral("--frobnicate")},
        {QStringLiteral("learn"), QStringLiteral("-o")},
        {QStringLiteral("learn"), QStringLiteral("-o"), path(QStringLiteral("x.fnp"))},
        {QStringLiteral("learn"), refs},
        {QStringLiteral("learn"), QStringLiteral("-o"), path(QStringLiteral("x.fnp")),
         QStringLiteral("--bogus"), refs},
        {QStringLiteral("learn"), QStringLiteral("-o"), path(QStringLiteral("x.fnp")),
         QStringLiteral("--limit"), QStringLiteral("0"), refs},
        {QStringLiteral("learn"), QStringLiteral("-o"), path(QStringLiteral("x.fnp")),
         QStringLiteral("--limit"), QStringLiteral("201"), refs},
        {QStringLiteral("analyze"), s_questionedFolder},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--threads"),
         QStringLiteral("0"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--threads"),
         QStringLiteral("many"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--json"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("-o"), path(QStringLiteral("y")),
         refs},
        {QStringLiteral("identify"), s_questionedFolder},
        {QStringLiteral("identify"), QStringLiteral("--library"), refs},
        {QStringLiteral("identify"), QStringLiteral("--library"), refs, QStringLiteral("-f"), fp, refs},
        {QStringLiteral("info")},
        {QStringLiteral("info"), fp, fp},
        {QStringLiteral("info"), QStringLiteral("--json=yes"), fp},
        {QStringLiteral("demo"), refs},
        {QStringLiteral("validate")},
        {QStringLiteral("validate"), refs, refs},
        {QStringLiteral("validate"), QStringLiteral("--json"), QStringLiteral("-"), refs},
        {QStringLiteral("validate"), QStringLiteral("--threads"), QStringLiteral("0"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--scale-search"), QStringLiteral("Full"),
         refs},
        {QStringLiteral("validate"), QStringLiteral("--scale-search="), refs},
        {QStringLiteral("learn"), QStringLiteral("-o"), path(QStringLiteral("x.fnp")), QStringLiteral("--scale-search"),
         QStringLiteral("off"), refs},
        // Outputs that would destroy evidence or replace a device.
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--csv"), s_questioned.at(0),
         s_questioned.at(0), s_questioned.at(1)},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--json"), fp, s_questionedFolder},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--csv"), linkToPhoto,
         s_questionedFolder},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--report"), QStringLiteral("/dev/full"),
         s_questionedFolder},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--csv"), path(QStringLiteral("o.csv")),
         QStringLiteral("--json"), path(QStringLiteral("./o.csv")), s_questionedFolder},
        {QStringLiteral("learn"), QStringLiteral("-o"), s_references.at(0), refs},
        {QStringLiteral("learn"), QStringLiteral("-o"), QStringLiteral("/dev/null"), refs},
        {QStringLiteral("learn"), QStringLiteral("-o"), notes, refs},
        // Existing files that are not an earlier output of that kind, inputs of this run or not.
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--csv"), s_questioned.at(0),
         s_questioned.at(1)},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--json"), s_references.at(0),
         s_questioned.at(1)},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--report"), notes, s_questioned.at(1)},
        // Shards: K from 1 to N, both whole numbers.
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--shard"), QStringLiteral("0/3"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--shard"), QStringLiteral("4/3"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--shard=1/0"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--shard"), QStringLiteral("x/y"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--shard"), QStringLiteral("2"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--shard"), QStringLiteral("1/2/3"), refs},
        {QStringLiteral("analyze"), QStringLiteral("-f"), fp, refs, QStringLiteral("--shard")},
        {QStringLiteral("merge")},
        {QStringLiteral("merge"), QStringLiteral("--shard"), QStringLiteral("1/2"), notes},
        {QStringLiteral("merge"), QStringLiteral("--json"), path(QStringLiteral("o.csv")), QStringLiteral("--csv"),
         path(QStringLiteral("o.csv")), notes},
        {QStringLiteral("merge"), QStringLiteral("--csv"), notes, notes},
    };
    for (const QStringList& arguments : cases)
    {
        SCOPED_TRACE(arguments.join(QLatin1Char(' ')).toStdString());
        const SRun result = run(arguments);
        EXPECT_TRUE(result.normalExit);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_TRUE(result.out.isEmpty()) << result.out.toStdString();
        EXPECT_EQ(lines(result.err).size(), 1) << result.err.toStdString();
        EXPECT_TRUE(result.err.contains(QStringLiteral("--help")));
    }
    EXPECT_FALSE(QFile::exists(path(QStringLiteral("x.fnp"))));
    EXPECT_FALSE(QFile::exists(path(QStringLiteral("o.csv"))));
    for (int i = 0; i < evidence.size(); ++i)
        EXPECT_EQ(readBytes(evidence.at(i)), before.at(i)) << evidence.at(i).toStdString();
    EXPECT_TRUE(QFileInfo(QStringLiteral("/dev/full")).exists() && !QFileInfo(QStringLiteral("/dev/full")).isFile());
    // An earlier output of its own kind is replaced.
    const QStringList again = {QStringLiteral("analyze"), QStringLiteral("-f"),          fp,
                               QStringLiteral("--csv"),   path(QStringLiteral("a.csv")), QStringLiteral("--json"),
                               path(QStringLiteral("a.jsonl")), s_questioned.at(1)};
    ASSERT_EQ(run(again).exitCode, 0);
    EXPECT_EQ(run(again).exitCode, 0);
}

TEST_F(CliTest, MissingFilesAndFoldersExitWithTwo)
{
    const QString missing = path(QStringLiteral("no-such-folder"));
    SRun result =
        run({QStringLiteral("learn"), QStringLiteral("-o"), path(QStringLiteral("m.fnp")), missing});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains(missing));

    result = run({QStringLiteral("learn"), QStringLiteral("-o"), path(QStringLiteral("no/such/dir/m.fnp")),
                  path(QStringLiteral("refs"))});
    EXPECT_EQ(result.exitCode, 2) << "checked before learning";
    EXPECT_TRUE(result.err.contains(QStringLiteral("no/such/dir/m.fnp")));
    EXPECT_TRUE(result.out.isEmpty());

    result = run({QStringLiteral("analyze"), QStringLiteral("-f"), path(QStringLiteral("missing.fnp")),
                  s_questionedFolder});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(lines(result.err).size(), 1) << result.err.toStdString();
    EXPECT_TRUE(result.err.contains(QStringLiteral("missing.fnp")));

    result =
        run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint, s_questioned.at(0), missing});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains(missing));
    EXPECT_TRUE(result.out.isEmpty()) << "nothing analyzed when a path is wrong";

    result =
        run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint, path(QStringLiteral("empty"))});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains(QStringLiteral("no photos")));

    result = run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint, QStringLiteral("--csv"),
                  path(QStringLiteral("no/such/dir/out.csv")), s_questionedFolder});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains(QStringLiteral("out.csv")));

    // A set that is missing, or has no DEVICE/reference/ and DEVICE/questioned/.
    for (const QString& set : {missing, path(QStringLiteral("empty")), s_fingerprint})
    {
        result = run({QStringLiteral("validate"), set});
        EXPECT_EQ(result.exitCode, 2) << set.toStdString();
        EXPECT_TRUE(result.out.isEmpty());
    }
}

TEST_F(CliTest, UnreadableFingerprintsExitWithTwo)
{
    // Not a fingerprint file at all.
    const QString garbage = path(QStringLiteral("garbage.fnp"));
    QByteArray noise;
    for (int i = 0; i < 4096; ++i)
        noise.append(static_cast<char>((i * 7919 + 13) % 251));
    writeBytes(garbage, noise);
    SRun result = run({QStringLiteral("analyze"), QStringLiteral("-f"), garbage, s_questionedFolder});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.out.isEmpty());
    ASSERT_EQ(lines(result.err).size(), 1) << result.err.toStdString();
    EXPECT_TRUE(result.err.contains(garbage));
    EXPECT_TRUE(result.err.contains(QStringLiteral("Unsupported version of fingerprint")));
    result = run({QStringLiteral("info"), garbage});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains(garbage));

    // A proper file with one bit flipped: refused on reading, by info too.
    QByteArray bytes = readBytes(s_fingerprint);
    ASSERT_GT(bytes.size(), 1000);
    bytes[bytes.size() - 100] = static_cast<char>(bytes.at(bytes.size() - 100) ^ 0x10);
    const QString damaged = path(QStringLiteral("damaged.fnp"));
    writeBytes(damaged, bytes);
    result = run({QStringLiteral("analyze"), QStringLiteral("-f"), damaged, QStringLiteral("--json"),
                  QStringLiteral("-"), s_questionedFolder});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.out.isEmpty()) << "no photo is reported as judged: " << result.out.toStdString();
    EXPECT_TRUE(result.err.contains(damaged));
    EXPECT_TRUE(result.err.contains(QStringLiteral("Fingerprint file is broken")));
    const QString fifo = path(QStringLiteral("fifo.fnp"));
    ASSERT_EQ(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    const QString cut = path(QStringLiteral("cut.fnp"));
    writeBytes(cut, readBytes(s_fingerprint).left(bytes.size() / 16));
    for (const QString& file : {damaged, cut, fifo, QStringLiteral("/dev/zero")})
    {
        result = run({QStringLiteral("info"), file});
        EXPECT_EQ(result.exitCode, 2) << file.toStdString();
        EXPECT_TRUE(result.out.isEmpty()) << file.toStdString() << ": " << result.out.toStdString();
        EXPECT_TRUE(result.err.contains(file == damaged || file == cut ? QStringLiteral("Fingerprint file is broken")
                                                                       : QStringLiteral("Unable to open fingerprint")))
            << result.err.toStdString();
    }
}

TEST_F(CliTest, LearningNeedsThreeUsablePhotos)
{
    const QString target = path(QStringLiteral("two.fnp"));
    SRun result =
        run({QStringLiteral("learn"), QStringLiteral("-o"), target, s_references.at(0), s_references.at(1)});
    EXPECT_EQ(result.exitCode, 2);
    ASSERT_EQ(lines(result.err).size(), 1) << result.err.toStdString();
    EXPECT_TRUE(result.err.contains(QStringLiteral("Not enough images")));
    EXPECT_TRUE(result.err.contains(QStringLiteral("at least 3")));
    EXPECT_FALSE(QFile::exists(target));

    // Three photos, one of them twice (once through another spelling): refused, naming both.
    const QString twice = path(QStringLiteral("refs/../refs/ref-1.jpg"));
    result = run(
        {QStringLiteral("learn"), QStringLiteral("-o"), target, s_references.at(0), s_references.at(1), twice});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains(s_references.at(0) + QStringLiteral(" and ") + twice)) << result.err.toStdString();
    EXPECT_FALSE(QFile::exists(target));

    // The engine refuses a photo below its size limit; the tool names it.
    camsim::CameraConfig small = unit(1);
    small.width = 640;
    small.height = 480;
    const QString tiny = path(QStringLiteral("extra/tiny.jpg"));
    shoot(camsim::Camera(small), camsim::SceneKind::Gradient, 50, tiny);
    const QString refused = path(QStringLiteral("refused.fnp"));
    result = run({QStringLiteral("learn"), QStringLiteral("-o"), refused, s_references.at(0),
                  s_references.at(1), s_references.at(2), tiny});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.out.contains(QStringLiteral("photo 3/4"))) << result.out.toStdString();
    EXPECT_FALSE(result.out.contains(QStringLiteral("photo 4/4")));
    EXPECT_TRUE(result.err.contains(QStringLiteral("4/4 ") + tiny)) << result.err.toStdString();
    EXPECT_TRUE(result.err.contains(QStringLiteral("Photo has too small resolution")));
    EXPECT_FALSE(QFile::exists(refused));

    // Out of memory is the computer's fault, not the first photo's.
    result = run({QStringLiteral("learn"), QStringLiteral("-o"), refused, s_references.at(0), s_references.at(1),
                  s_references.at(2)},
                 120000, {QStringLiteral("LUMICREST_MEMORY_BUDGET_MB"), QStringLiteral("1")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains(QStringLiteral("ran out of memory for learning"))) << result.err.toStdString();
    EXPECT_FALSE(result.err.contains(QStringLiteral("refused photo")));
    EXPECT_FALSE(QFile::exists(refused));
}

TEST_F(CliTest, LimitCapsTheReferencePhotos)
{
    const QString target = path(QStringLiteral("limited.fnp"));
    const SRun result = run({QStringLiteral("learn"), QStringLiteral("--limit"), QStringLiteral("3"),
                             QStringLiteral("-o"), target, path(QStringLiteral("refs"))});
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_TRUE(result.out.contains(QStringLiteral("photo 3/3")));
    EXPECT_FALSE(result.out.contains(QStringLiteral("ref-4.jpg")));
    EXPECT_FALSE(result.err.contains(QStringLiteral("warning"))) << "no warning with --limit";
    const SRun info = run({QStringLiteral("info"), QStringLiteral("--json"), target});
    EXPECT_EQ(QJsonDocument::fromJson(info.out.toUtf8())
                  .object()
                  .value(QStringLiteral("trainingimagescount"))
                  .toInt(),
              3);
}

TEST_F(CliTest, RecursiveTakesSubfoldersInSortedOrder)
{
    const QString nested = path(QStringLiteral("nested"));
    const SRun flat = run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint,
                           QStringLiteral("--json"), QStringLiteral("-"), nested});
    ASSERT_EQ(flat.exitCode, 0) << flat.err.toStdString();
    const QList<QJsonObject> top = parseJsonLines(flat.out);
    ASSERT_EQ(top.size(), 1);
    EXPECT_EQ(top.at(0).value(QStringLiteral("path")).toString(), nested + QStringLiteral("/top.jpg"));

    const SRun deep =
        run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint, QStringLiteral("--recursive"),
             QStringLiteral("--json"), QStringLiteral("-"), nested});
    ASSERT_EQ(deep.exitCode, 0) << deep.err.toStdString();
    const QList<QJsonObject> all = parseJsonLines(deep.out);
    ASSERT_EQ(all.size(), 3);
    EXPECT_EQ(all.at(0).value(QStringLiteral("path")).toString(), nested + QStringLiteral("/inner/a.jpg"));
    EXPECT_EQ(all.at(1).value(QStringLiteral("path")).toString(), nested + QStringLiteral("/inner/b.JPG"));
    EXPECT_EQ(all.at(2).value(QStringLiteral("path")).toString(), nested + QStringLiteral("/top.jpg"));
    EXPECT_TRUE(all.at(0).value(QStringLiteral("matched")).toBool());
    EXPECT_FALSE(all.at(1).value(QStringLiteral("matched")).toBool());
    EXPECT_TRUE(all.at(2).value(QStringLiteral("matched")).toBool());
}

TEST_F(CliTest, MoreThanTwoHundredPhotosAreCutWithAWarning)
{
    // Files that only look like photos: the engine refuses the first, which
    // is enough to see how many were passed on.
    const QDir many(path(QStringLiteral("many")));
    ASSERT_TRUE(many.mkpath(QStringLiteral(".")));
    for (int i = 0; i < 201; ++i)
        writeBytes(many.filePath(QStringLiteral("p%1.jpg").arg(i, 3, 10, QLatin1Char('0'))),
                   QByteArray("not photo ") + QByteArray::number(i)); // distinct, or they would be copies

    SRun result =
        run({QStringLiteral("learn"), QStringLiteral("-o"), path(QStringLiteral("many.fnp")), many.path()});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(
        result.err.contains(QStringLiteral("warning: Too many images: 201 found, only the first 200")))
        << result.err.toStdString();
    EXPECT_TRUE(
        result.err.contains(QStringLiteral("photo 1/200 ") + many.filePath(QStringLiteral("p000.jpg"))))
        << result.err.toStdString();
    EXPECT_TRUE(result.err.contains(QStringLiteral("Photo format is not supported")))
        << "the engine's reason";

    result = run({QStringLiteral("learn"), QStringLiteral("--limit"), QStringLiteral("5"),
                  QStringLiteral("-o"), path(QStringLiteral("many.fnp")), many.path()});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_FALSE(result.err.contains(QStringLiteral("Too many images")));
    EXPECT_TRUE(result.err.contains(QStringLiteral("photo 1/5 "))) << result.err.toStdString();
}

TEST_F(CliTest, PlainProgressIsPeriodicNotPerPhoto)
{
    QStringList arguments = {QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint,
                             QStringLiteral("--csv"), path(QStringLiteral("progress.csv"))};
    for (int i = 0; i < 8; ++i)
        arguments.append(s_questionedFolder);
    const SRun result = run(arguments);
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    int progressLines = 0;
    for (const QString& line : lines(result.err))
    {
        if (!line.startsWith(QStringLiteral("Analyzed ")))
            continue;
        ++progressLines;
        EXPECT_TRUE(line.contains(QRegularExpression(QStringLiteral(
            "^Analyzed \\d+/40 photos \\(\\d+%\\)  \\d+\\.\\d photos/s  remaining \\d+h \\d+m \\d\\ds$"))))
            << line.toStdString();
    }
    const double seconds =
        result.out.section(QStringLiteral("Time elapsed: "), 1).section(QLatin1Char(' '), 0, 0).toDouble();
    EXPECT_GE(progressLines, 1);
    EXPECT_LE(progressLines, 9 + static_cast<int>(seconds / 5.0)) << "one line per tenth, and one per 5 s";
    EXPECT_FALSE(result.err.contains(QLatin1Char('\r')))
        << "no terminal line when standard error is not a terminal";
}

#ifdef Q_OS_UNIX
TEST_F(CliTest, InterruptKeepsTheFinishedResults)
{
    // Ten copies of the folder on one thread: long enough to be interrupted.
    // Ctrl-C and a polite kill end the run alike.
    for (const int signal : {SIGINT, SIGTERM})
    {
        SCOPED_TRACE(signal);
        const QString csvPath = path(QStringLiteral("interrupted.csv"));
        QStringList arguments = {QStringLiteral("analyze"), QStringLiteral("-f"),  s_fingerprint,
                                 QStringLiteral("--threads"), QStringLiteral("1"), QStringLiteral("--json"),
                                 QStringLiteral("-"),         QStringLiteral("--csv"), csvPath};
        const int copies = 10;
        for (int i = 0; i < copies; ++i)
            arguments.append(s_questionedFolder);
        QProcess process;
        process.setProcessEnvironment(childEnvironment(s_dir->path()));
        process.start(QStringLiteral(QUORVEX_CLI_PATH), arguments);
        ASSERT_TRUE(process.waitForStarted());
        // The first result line means the analysis runs with the signals caught.
        QByteArray out;
        while (!out.contains('\n') && process.waitForReadyRead(60000))
            out += process.readAllStandardOutput();
        ASSERT_TRUE(out.contains('\n'));
        ASSERT_EQ(::kill(static_cast<pid_t>(process.processId()), signal), 0);
        ASSERT_TRUE(process.waitForFinished(60000));
        out += process.readAllStandardOutput();
        const QString err = QString::fromUtf8(process.readAllStandardError());

        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << "a clean end, not death by the signal";
        EXPECT_EQ(process.exitCode(), 130);
        EXPECT_TRUE(err.contains(QStringLiteral("interrupted")));
        const QList<QJsonObject> objects = parseJsonLines(QString::fromUtf8(out));
        ASSERT_EQ(objects.size(), copies * 5) << "every photo has its line";
        EXPECT_EQ(parseCsv(QString::fromUtf8(readBytes(csvPath))).size(), 1 + copies * 5) << "and its CSV row";
        int finished = 0;
        for (int i = 0; i < objects.size(); ++i)
        {
            const QString cls = objects.at(i).value(QStringLiteral("class")).toString();
            if (cls == QLatin1String("not processed"))
            {
                EXPECT_EQ(objects.at(i).value(QStringLiteral("status")).toString(), QStringLiteral("invalid"));
                EXPECT_EQ(objects.at(i).value(QStringLiteral("reason")).toString(),
                          QStringLiteral("the analysis was interrupted"));
                continue;
            }
            // One thread takes photos in order: the finished ones come first.
            EXPECT_EQ(finished, i) << "finished photo after an unfinished one";
            ++finished;
            EXPECT_EQ(objects.at(i).value(QStringLiteral("status")).toString(), QStringLiteral("success"));
            EXPECT_EQ(objects.at(i).value(QStringLiteral("matched")).toBool(), s_truth.at(i % 5) == SameCamera);
        }
        EXPECT_GE(finished, 1);
        EXPECT_LT(finished, copies * 5) << "the interrupt stopped the run";
        EXPECT_TRUE(err.contains(QStringLiteral("Photos analyzed: %1/%2").arg(finished).arg(copies * 5)));
    }
}

// Every file with a photo's name is analysed or reported with the reason why
// not; none is opened if that could hang, none silently left out.
TEST_F(CliTest, FilesThatCannotBeAnalyzedAreReportedNotDropped)
{
    const QString folder = path(QStringLiteral("odd"));
    ASSERT_TRUE(QDir().mkpath(folder));
    const QByteArray base = QFile::encodeName(folder);
    ASSERT_TRUE(QFile::copy(s_questioned.at(0), folder + QStringLiteral("/good.jpg")));
    const QByteArray photo = readBytes(s_questioned.at(0));
    ASSERT_EQ(::mkfifo((base + "/pipe.jpg").constData(), 0600), 0);
    ASSERT_EQ(::symlink("pipe.jpg", (base + "/to-pipe.jpg").constData()), 0);
    ASSERT_EQ(::symlink("nothing", (base + "/gone.jpg").constData()), 0);
    int fd = ::open((base + "/caf\xe9.jpg").constData(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, photo.constData(), static_cast<size_t>(photo.size())), photo.size());
    ::close(fd);
    // Folders nested beyond the system's path limit, made one level at a time.
    fd = ::open(base.constData(), O_RDONLY | O_DIRECTORY);
    const QByteArray level(250, 'd');
    for (int depth = 0; depth < 18 && fd >= 0; ++depth)
    {
        ASSERT_EQ(::mkdirat(fd, level.constData(), 0700), 0);
        const int inner = ::openat(fd, level.constData(), O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = inner;
    }
    ASSERT_GE(fd, 0);
    const int deep = ::openat(fd, "deep.jpg", O_WRONLY | O_CREAT, 0600);
    ::close(fd);
    ASSERT_GE(deep, 0);
    ASSERT_EQ(::write(deep, photo.constData(), static_cast<size_t>(photo.size())), photo.size());
    ::close(deep);

    const QString csvPath = path(QStringLiteral("odd.csv"));
    const SRun result = run({QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint, QStringLiteral("-r"),
                             QStringLiteral("--json"), QStringLiteral("-"), QStringLiteral("--csv"), csvPath, folder,
                             folder + QStringLiteral("/pipe.jpg")});
    QProcess::execute(QStringLiteral("rm"), {QStringLiteral("-rf"), folder}); // too deep for QDir
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    const struct
    {
        const char* name;
        const char* reason;
    } expected[] = {
        {"good.jpg", ""},
        {"caf\\xe9.jpg", "not valid UTF-8"},
        {"/deep.jpg", "too long"},
        {"gone.jpg", "cannot be reached"},
        {"pipe.jpg", "not a regular file"},
        {"to-pipe.jpg", "not a regular file"},
        {"pipe.jpg", "not a regular file"}, // named on the command line
    };
    const QList<QJsonObject> objects = parseJsonLines(result.out);
    ASSERT_EQ(objects.size(), static_cast<int>(std::size(expected))) << result.out.toStdString();
    for (int i = 0; i < objects.size(); ++i)
    {
        const QJsonObject& o = objects.at(i);
        const QString reason = o.value(QStringLiteral("reason")).toString();
        SCOPED_TRACE(o.value(QStringLiteral("path")).toString().toStdString());
        EXPECT_TRUE(o.value(QStringLiteral("path")).toString().endsWith(QLatin1String(expected[i].name)));
        EXPECT_TRUE(reason.contains(QLatin1String(expected[i].reason))) << reason.toStdString();
        EXPECT_EQ(o.value(QStringLiteral("class")).toString() == QLatin1String("not processed"), i > 0);
        EXPECT_EQ(reason.isEmpty(), i == 0);
    }
    EXPECT_EQ(result.err.count(QStringLiteral("cannot analyze")), 6) << "each named on standard error too";
    EXPECT_TRUE(result.err.contains(QStringLiteral("Photos analyzed: 1/7")));
    EXPECT_EQ(parseCsv(QString::fromUtf8(readBytes(csvPath))).size(), 1 + 7);

    // A name that is not valid UTF-8 given as an argument cannot be carried: refused, not "missing".
    QProcess shell;
    shell.setProcessEnvironment(childEnvironment(s_dir->path()));
    shell.start(QStringLiteral("sh"), {QStringLiteral("-c"), QStringLiteral("exec \"$0\" analyze -f \"$1\" \"$(printf 'caf\\351.jpg')\""),
                                      QStringLiteral(QUORVEX_CLI_PATH), s_fingerprint});
    ASSERT_TRUE(shell.waitForFinished(60000));
    EXPECT_EQ(shell.exitCode(), 1);
    const QString err = QString::fromUtf8(shell.readAllStandardError());
    EXPECT_TRUE(err.contains(QStringLiteral("not valid UTF-8 (caf\\xe9.jpg)"))) << err.toStdString();
}

// A reader that has gone costs only standard output: the CSV is whole, and
// the run ends with an error that says why instead of dying of SIGPIPE.
TEST_F(CliTest, AClosedStandardOutputLeavesTheOtherOutputsWhole)
{
    const QString csvPath = path(QStringLiteral("piped.csv"));
    const QString errPath = path(QStringLiteral("piped.err"));
    QList<QByteArray> arguments = {QUORVEX_CLI_PATH, "analyze", "-f", QFile::encodeName(s_fingerprint), "--json", "-",
                                   "--csv", QFile::encodeName(csvPath)};
    for (int i = 0; i < 3; ++i)
        arguments.append(QFile::encodeName(s_questionedFolder));
    std::vector<char*> argv;
    for (QByteArray& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    // Everything the child needs is made before fork: it only redirects and runs.
    QList<QByteArray> environment;
    for (const QString& variable : childEnvironment(s_dir->path()).toStringList())
        environment.append(QFile::encodeName(variable));
    std::vector<char*> envp;
    for (QByteArray& variable : environment)
        envp.push_back(variable.data());
    envp.push_back(nullptr);
    const QByteArray errFile = QFile::encodeName(errPath);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[0]); // the reader is gone before the first line
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0)
    {
        ::dup2(fds[1], 1);
        const int err = ::open(errFile.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(err, 2);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(fds[1]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    const QString err = QString::fromUtf8(readBytes(errPath));
    ASSERT_TRUE(WIFEXITED(status)) << "not death by SIGPIPE: " << err.toStdString();
    EXPECT_EQ(WEXITSTATUS(status), 2) << err.toStdString();
    EXPECT_TRUE(err.contains(QStringLiteral("cannot write to standard output"))) << err.toStdString();
    EXPECT_TRUE(err.contains(QStringLiteral("Photos analyzed: 15/15"))) << err.toStdString();
    EXPECT_EQ(parseCsv(QString::fromUtf8(readBytes(csvPath))).size(), 1 + 15);
}
#endif

// Three shards merged give the whole run's table, JSON and CSV; merge
// refuses what is not one whole run and never writes a shorter table.
TEST_F(CliTest, ShardsMergeIntoTheWholeRun)
{
    // Relative paths, as the merged table shows photos below the working folder.
    const QStringList photos = {QFileInfo(s_questionedFolder).fileName(), QStringLiteral("extra/broken.jpg"),
                                QStringLiteral("extra/larger.jpg"), QStringLiteral("extra/relabelled.jpg")};
    const QString fp = path(QStringLiteral("shard-camera.fnp"));
    QFile::remove(fp);
    ASSERT_TRUE(QFile::copy(s_fingerprint, fp));
    const auto analyze = [&](const QStringList& options, const QString& name)
    {
        const SRun result = run(QStringList{QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--json"),
                                            path(name + QStringLiteral(".jsonl"))} +
                                options + photos);
        EXPECT_EQ(result.exitCode, 0) << name.toStdString() << result.err.toStdString();
        return result;
    };
    const SRun whole = analyze({QStringLiteral("--csv"), path(QStringLiteral("whole.csv"))}, QStringLiteral("whole"));
    for (const char* shard : {"1/3", "2/3", "3/3", "9/9"})
    {
        const SRun part = analyze({QStringLiteral("--shard"), QLatin1String(shard)},
                                  QStringLiteral("shard-") + QString::fromLatin1(shard).left(1));
        const int count = QByteArray(shard) == "9/9" ? 0 : QByteArray(shard) == "3/3" ? 2 : 3;
        EXPECT_TRUE(part.out.contains(QStringLiteral("Photos analyzed: %1/%1\n").arg(count))) << shard;
    }
    EXPECT_TRUE(readBytes(path(QStringLiteral("shard-9.jsonl"))).isEmpty()) << "8 photos: shard 9/9 is empty";
    // Shard 2 again, skipping the relabelled photo (index 7): another result for one position.
    analyze({QStringLiteral("--shard"), QStringLiteral("2/3"), QStringLiteral("--skip-different-camera")},
            QStringLiteral("shard-2-skip"));
    // Shard 1 against the same fingerprint at another path, and a run of another list.
    const SRun other = run(QStringList{QStringLiteral("analyze"), QStringLiteral("-f"), s_fingerprint,
                                       QStringLiteral("--shard"), QStringLiteral("1/3"), QStringLiteral("--json"),
                                       path(QStringLiteral("shard-other.jsonl"))} +
                           photos);
    ASSERT_EQ(other.exitCode, 0);
    ASSERT_EQ(run({QStringLiteral("analyze"), QStringLiteral("-f"), fp, QStringLiteral("--json"),
                   path(QStringLiteral("shard-short.jsonl")), photos.at(0)})
                  .exitCode,
              0);
    const QByteArray firstLine = readBytes(path(QStringLiteral("shard-1.jsonl"))).split('\n').first();
    writeBytes(path(QStringLiteral("shard-bad.jsonl")), firstLine + "\n{\"path\":\n");
    writeBytes(path(QStringLiteral("shard-long.jsonl")), QByteArray(3 << 20, 'x'));
    writeBytes(path(QStringLiteral("shard-identify.jsonl")),
               "{\"path\":\"/p.jpg\",\"matches\":[],\"compared\":0,\"best\":null,\"index\":1,\"total\":8}\n");

    const QString merged = path(QStringLiteral("merged.jsonl"));
    const QString mergedCsv = path(QStringLiteral("merged.csv"));
    const auto shards = [&](const QStringList& names)
    {
        QStringList arguments = {QStringLiteral("merge"), QStringLiteral("--json"), merged, QStringLiteral("--csv"),
                                 mergedCsv};
        for (const QString& name : names)
            arguments.append(path(QStringLiteral("shard-%1.jsonl").arg(name)));
        return arguments;
    };
    const auto s = [](const char* text) { return QString::fromLatin1(text); };
    const struct
    {
        QStringList arguments;
        int exitCode;
        QString error;
    } cases[] = {
        {shards({s("3"), s("1"), s("9"), s("2"), s("1")}), 0, QString()}, // any order, a shard twice
        {shards({s("1"), s("3")}), 2, s("3 of the run's 8 photos are in none of the files (index 1, 4, 7)")},
        {shards({s("1"), s("2"), s("3"), s("2-skip")}), 2, s("give different results for index 7")},
        {shards({s("other"), s("2"), s("3")}), 2, s("merge the shards of one run")},
        {shards({s("1"), s("short")}), 2, s("a run of 5 photos")},
        {shards({s("2"), s("3"), s("bad")}), 2, s("shard-bad.jsonl line 2: not a JSON object")},
        {shards({s("long")}), 2, s("shard-long.jsonl line 1: the line is too long")},
        {shards({s("1"), s("identify")}), 2, s("shard-identify.jsonl line 1: an 'identify' result among 'analyze'")},
        {shards({s("9")}), 2, s("no result lines")},
        {shards({s("1"), s("gone")}), 2, s("no such file")},
        {{s("merge"), s("--csv"), path(s("shard-3.jsonl")), path(s("shard-1.jsonl")), path(s("shard-2.jsonl")),
          path(s("shard-3.jsonl"))},
         1, s("would overwrite the input")},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.arguments.join(QLatin1Char(' ')).toStdString());
        QFile::remove(merged);
        QFile::remove(mergedCsv);
        const SRun result = run(c.arguments);
        EXPECT_EQ(result.exitCode, c.exitCode) << result.err.toStdString();
        if (c.exitCode != 0)
        {
            EXPECT_TRUE(result.err.contains(c.error)) << result.err.toStdString();
            EXPECT_TRUE(result.out.isEmpty()) << "no shorter table";
            EXPECT_FALSE(QFile::exists(merged) || QFile::exists(mergedCsv));
            continue;
        }
        EXPECT_EQ(readBytes(merged), readBytes(path(s("whole.jsonl"))));
        EXPECT_EQ(readBytes(mergedCsv), readBytes(path(s("whole.csv"))));
        // The table and the counts; the time is not in the lines.
        EXPECT_EQ(lines(result.out).mid(0, 1 + 8 + 4), lines(whole.out).mid(0, 1 + 8 + 4));
        EXPECT_FALSE(result.out.contains(s("Time elapsed")));
    }

    // The report needs the fingerprint the lines name: gone, no report.
    const QString report = path(s("merged.pdf"));
    QFile::remove(report);
    const QStringList withReport = {s("merge"), s("--report"), report, path(s("shard-1.jsonl")),
                                    path(s("shard-2.jsonl")), path(s("shard-3.jsonl"))};
    const SRun reported = run(withReport);
    EXPECT_EQ(reported.exitCode, 0) << reported.err.toStdString();
    EXPECT_TRUE(readBytes(report).startsWith("%PDF-"));
    QFile::remove(report);
    ASSERT_TRUE(QFile::remove(fp));
    const SRun noFingerprint = run(withReport);
    EXPECT_EQ(noFingerprint.exitCode, 2);
    EXPECT_TRUE(noFingerprint.err.contains(fp)) << noFingerprint.err.toStdString();
    EXPECT_FALSE(QFile::exists(report));
}

TEST_F(CliTest, HelpExplainsEveryOption)
{
    const SRun help = run({QStringLiteral("--help")});
    ASSERT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.err.isEmpty());
    for (const char* word : {"learn",
                             "analyze",
                             "merge",
                             "--shard",
                             "identify",
                             "--library",
                             "false-alarm rate per photo",
                             "info",
                             "demo",
                             "validate",
                             "--variants",
                             "SET_DIR",
                             "-o",
                             "--output",
                             "--recursive",
                             "--limit",
                             "-f",
                             "--fingerprint",
                             "--skip-different-camera",
                             "--threads",
                             "--json",
                             "--csv",
                             "--report",
                             "--out",
                             "--help",
                             "--version",
                             "--scale-search",
                             "very high",
                             "not compared",
                             "not processed",
                             "130"})
        EXPECT_TRUE(help.out.contains(QString::fromLatin1(word))) << word;
    EXPECT_EQ(run({QStringLiteral("analyze"), QStringLiteral("--help")}).out, help.out);

    const SRun version = run({QStringLiteral("--version")});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, QStringLiteral("quorvex-cli 2.0.0\n"));
}

// A library of four cameras (A and B of one make and model, C of another,
// and a damaged file) and photos of A, B, a camera outside the library and a
// larger sensor.
TEST_F(CliTest, IdentifyNamesTheCameraOfEachPhoto)
{
    const QDir library(path(QStringLiteral("library")));
    ASSERT_TRUE(library.mkpath(QStringLiteral("sub")));
    ASSERT_TRUE(QFile::copy(s_fingerprint, library.filePath(QStringLiteral("camera-a.fnp"))));
    camsim::CameraConfig otherModel = unit(3);
    otherModel.model = "QX-7";
    const struct
    {
        camsim::CameraConfig camera;
        const char* fingerprint;
    } learned[] = {{unit(2), "sub/camera-b.fnp"}, {otherModel, "camera-c.fnp"}};
    for (const auto& camera : learned)
    {
        const QString refs = path(QStringLiteral("refs-") + QString::fromLatin1(camera.fingerprint).section(QLatin1Char('/'), -1));
        ASSERT_TRUE(QDir().mkpath(refs));
        for (int i = 0; i < 3; ++i)
            shoot(camsim::Camera(camera.camera), camsim::SceneKind::Natural, 70 + static_cast<uint64_t>(i),
                  QDir(refs).filePath(QStringLiteral("r%1.jpg").arg(i)));
        ASSERT_EQ(run({QStringLiteral("learn"), QStringLiteral("-o"),
                       library.filePath(QString::fromLatin1(camera.fingerprint)), refs})
                      .exitCode,
                  0);
    }
    const QString damaged = library.filePath(QStringLiteral("sub/damaged.fnp"));
    writeBytes(damaged, readBytes(s_fingerprint).left(4000));
    const QString stranger = path(QStringLiteral("stranger.jpg"));
    shoot(camsim::Camera(unit(4)), camsim::SceneKind::Natural, 31, stranger);

    const QString a = library.filePath(QStringLiteral("camera-a.fnp"));
    const QString b = library.filePath(QStringLiteral("sub/camera-b.fnp"));
    const struct
    {
        QString photo;
        QString camera; // empty: none matches
        QString status;
        int compared;
        QString table;
    } expected[] = {
        {s_questioned.at(0), a, QStringLiteral("success"), 3, QStringLiteral(": camera-a.fnp (")},
        {s_questioned.at(3), b, QStringLiteral("success"), 3, QStringLiteral(": camera-b.fnp (")},
        {stranger, QString(), QStringLiteral("success"), 3, QStringLiteral(": no camera in the library")},
        {path(QStringLiteral("extra/larger.jpg")), QString(), QStringLiteral("imagefingerprintinconsistentsize"), 0,
         QStringLiteral(": not compared: ")},
    };
    QStringList arguments = {QStringLiteral("identify"), QStringLiteral("--library"), library.path(),
                             QStringLiteral("--json"), QStringLiteral("-")};
    for (const auto& photo : expected)
        arguments << photo.photo;
    const SRun json = run(arguments);
    ASSERT_EQ(json.exitCode, 0) << json.err.toStdString();
    EXPECT_TRUE(json.err.contains(QStringLiteral("damaged.fnp"))) << "named, not dropped: " << json.err.toStdString();
    const QStringList keys = {QStringLiteral("path"),   QStringLiteral("sha256"), QStringLiteral("compared"),
                              QStringLiteral("matches"), QStringLiteral("status"), QStringLiteral("reason"),
                              QStringLiteral("best"),   QStringLiteral("index"),  QStringLiteral("total"),
                              QStringLiteral("library")};
    const QStringList jsonLines = lines(json.out);
    ASSERT_EQ(jsonLines.size(), 4) << json.out.toStdString();
    arguments.removeAt(3);
    arguments.removeAt(3);
    // A copy of A with one bit of its data flipped but a digest that vouches for
    // it: the damage shows only when it is loaded, and must still be named.
    QByteArray flipped = readBytes(a);
    flipped[flipped.size() / 2] = static_cast<char>(flipped.at(flipped.size() / 2) ^ 0x10);
    writeBytes(library.filePath(QStringLiteral("flipped.fnp")), flipped);
    ASSERT_TRUE(QFile::copy(a + QStringLiteral(".digest"), library.filePath(QStringLiteral("flipped.fnp.digest"))));
    const SRun tableRun = run(arguments);
    EXPECT_TRUE(tableRun.err.contains(QStringLiteral("flipped.fnp is damaged"))) << tableRun.err.toStdString();
    const QStringList table = lines(tableRun.out);
    for (int i = 0; i < 4; ++i)
    {
        const auto& want = expected[i];
        SCOPED_TRACE(want.photo.toStdString());
        const QJsonObject o = QJsonDocument::fromJson(jsonLines.at(i).toUtf8()).object();
        int at = 0;
        for (const QString& key : keys)
        {
            const int next = jsonLines.at(i).indexOf(QLatin1Char('"') + key + QStringLiteral("\":"), at);
            EXPECT_GE(next, at) << key.toStdString() << " missing or out of order";
            at = qMax(at, next);
        }
        EXPECT_EQ(o.keys().size(), keys.size());
        EXPECT_EQ(o.value(QStringLiteral("path")).toString(), QFileInfo(want.photo).absoluteFilePath());
        EXPECT_EQ(o.value(QStringLiteral("index")).toInt(-1), i);
        EXPECT_EQ(o.value(QStringLiteral("total")).toInt(), 4);
        EXPECT_EQ(o.value(QStringLiteral("library")).toString(), library.path());
        EXPECT_EQ(o.value(QStringLiteral("status")).toString(), want.status);
        EXPECT_EQ(o.value(QStringLiteral("compared")).toInt(-1), want.compared);
        EXPECT_EQ(o.value(QStringLiteral("sha256")).toString().size(), 64);
        const QJsonArray matches = o.value(QStringLiteral("matches")).toArray();
        if (want.camera.isEmpty())
        {
            EXPECT_TRUE(matches.isEmpty()) << jsonLines.at(i).toStdString();
        }
        else
        {
            ASSERT_EQ(matches.size(), 1) << jsonLines.at(i).toStdString();
            const QJsonObject match = matches.at(0).toObject();
            EXPECT_EQ(match.value(QStringLiteral("fingerprint")).toString(), want.camera);
            EXPECT_GE(match.value(QStringLiteral("pce")).toDouble(), 60.0);
            EXPECT_TRUE(MatchClasses.contains(match.value(QStringLiteral("class")).toString()));
            EXPECT_EQ(o.value(QStringLiteral("best")).toObject(), match) << "the strongest match is the best";
        }
        if (want.compared == 0)
        {
            EXPECT_TRUE(o.value(QStringLiteral("best")).isNull()) << "no nearest camera without a comparison";
        }
        ASSERT_GT(table.size(), i + 1);
        EXPECT_TRUE(table.at(i + 1).startsWith(want.photo + want.table)) << table.at(i + 1).toStdString();
    }
    EXPECT_TRUE(table.contains(QStringLiteral("Photos identified: 2")));
    EXPECT_TRUE(table.contains(QStringLiteral("No camera in the library: 1")));
    EXPECT_TRUE(table.contains(QStringLiteral("Not compared: 1")));

    // Two shards (with a file that cannot be analyzed) merge into the whole
    // run; shards of another library, or a report without the library, do not.
    const auto s = [](const char* text) { return QString::fromLatin1(text); };
    QStringList photos = {s("extra/broken.jpg")}; // relative: as the merged table shows them
    for (const auto& photo : expected)
        photos << QDir(s_dir->path()).relativeFilePath(photo.photo);
    const QDir other(path(s("library-other")));
    ASSERT_TRUE(other.mkpath(s(".")));
    ASSERT_TRUE(QFile::copy(a, other.filePath(s("camera-a.fnp"))));
    const auto identify = [&](const QDir& folder, const QString& name, const QStringList& options)
    {
        const SRun result = run(QStringList{s("identify"), s("--library"), folder.path(), s("--json"),
                                            path(name + s(".jsonl"))} +
                                options + photos);
        EXPECT_EQ(result.exitCode, 0) << name.toStdString() << result.err.toStdString();
        return result;
    };
    const SRun whole = identify(library, s("id-whole"), {s("--csv"), path(s("id-whole.csv"))});
    identify(library, s("id-1"), {s("--shard"), s("1/2")});
    identify(library, s("id-2"), {s("--shard"), s("2/2")});
    identify(other, s("id-other"), {s("--shard"), s("1/2")});
    const QStringList merged = {path(s("id-merged.jsonl")), path(s("id-merged.csv")), path(s("id-merged.pdf"))};
    const auto merge = [&](const char* first)
    {
        for (const QString& file : merged)
            QFile::remove(file);
        return run({s("merge"), s("--json"), merged.at(0), s("--csv"), merged.at(1), s("--report"), merged.at(2),
                    path(QLatin1String(first)), path(s("id-2.jsonl"))});
    };
    const SRun joined = merge("id-1.jsonl");
    EXPECT_EQ(joined.exitCode, 0) << joined.err.toStdString();
    EXPECT_EQ(readBytes(merged.at(0)), readBytes(path(s("id-whole.jsonl"))));
    EXPECT_EQ(readBytes(merged.at(1)), readBytes(path(s("id-whole.csv"))));
    EXPECT_TRUE(readBytes(merged.at(2)).startsWith("%PDF-"));
    // The table and the counts; the time is not in the lines.
    EXPECT_EQ(lines(joined.out).mid(0, 1 + 5 + 5), lines(whole.out).mid(0, 1 + 5 + 5));
    EXPECT_FALSE(joined.out.contains(s("Time elapsed")));
    const QString gone = path(s("library-gone"));
    for (const bool libraryGone : {false, true})
    {
        if (libraryGone)
        {
            ASSERT_TRUE(QDir().rename(library.path(), gone));
        }
        const SRun refused = merge(libraryGone ? "id-1.jsonl" : "id-other.jsonl");
        EXPECT_EQ(refused.exitCode, 2);
        EXPECT_TRUE(refused.err.contains(libraryGone ? library.path() : s("merge the shards of one run")))
            << refused.err.toStdString();
        EXPECT_TRUE(refused.out.isEmpty());
        for (const QString& file : merged)
            EXPECT_FALSE(QFile::exists(file)) << file.toStdString();
    }
    ASSERT_TRUE(QDir().rename(gone, library.path()));

    // A folder without a usable fingerprint is a failure, as an unreadable fingerprint is for analyze.
    for (const QString& folder : {path(QStringLiteral("empty")), path(QStringLiteral("no-such-library"))})
    {
        const SRun none = run({QStringLiteral("identify"), QStringLiteral("--library"), folder, s_questioned.at(0)});
        EXPECT_EQ(none.exitCode, 2) << folder.toStdString();
        EXPECT_TRUE(none.out.isEmpty());
        EXPECT_TRUE(none.err.contains(folder)) << none.err.toStdString();
    }
}

TEST_F(CliTest, DemoClassifiesEveryPhotoRight)
{
    const QString out = path(QStringLiteral("demo"));
    const SRun result = run({QStringLiteral("demo"), QStringLiteral("--out"), out});
    EXPECT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
    int rows = 0;
    int sameModel = 0;
    int otherMake = 0;
    // The demo's photos score as real ones do: every class shows up. A photo of
    // camera A may score below the threshold ("missed": no claim is made), but
    // whatever matches is camera A's and nothing of B or C matches.
    const QStringList classes = {QStringLiteral("very high"), QStringLiteral("high"), QStringLiteral("medium"),
                                 QStringLiteral("low"), QStringLiteral("not found")};
    QMap<QString, int> perClass;
    for (const QString& line : lines(result.out))
    {
        if (!line.startsWith(QStringLiteral("photo-")))
            continue;
        ++rows;
        const bool cameraA = line.contains(QStringLiteral("camera A"));
        EXPECT_TRUE(line.endsWith(QStringLiteral("right")) || (cameraA && line.endsWith(QStringLiteral("missed"))))
            << line.toStdString();
        for (const QString& c : classes)
            if (QRegularExpression(QStringLiteral("\\s{2}%1\\s+-?[0-9.]+\\s+\\w+$").arg(c)).match(line).hasMatch())
                ++perClass[c];
        if (line.contains(QStringLiteral("camera B (same model)")))
        {
            ++sameModel;
            EXPECT_TRUE(line.contains(QStringLiteral("not found")));
        }
        if (line.contains(QStringLiteral("camera C")))
        {
            ++otherMake;
            EXPECT_TRUE(line.contains(QStringLiteral("not found")));
        }
    }
    for (const QString& c : classes)
        EXPECT_GE(perClass.value(c), 1) << c.toStdString();
    EXPECT_EQ(rows, 14);
    EXPECT_EQ(sameModel, 3);
    EXPECT_EQ(otherMake, 3);
    EXPECT_TRUE(result.out.contains(QStringLiteral("All 14 photos classified right")) ||
                result.out.contains(QStringLiteral("No photo classified wrong")));
    EXPECT_EQ(QDir(out + QStringLiteral("/questioned")).entryList({QStringLiteral("*.jpg")}).size(), 14);
    EXPECT_EQ(QDir(out + QStringLiteral("/reference")).entryList({QStringLiteral("*.jpg")}).size(), 12);
    EXPECT_TRUE(QFileInfo(out + QStringLiteral("/camera-a.fnp")).isFile());
    EXPECT_TRUE(result.out.contains(out + QStringLiteral("/questioned")));
    const QString report = pdfText(out + QStringLiteral("/report.pdf"));
    EXPECT_TRUE(report.contains(QStringLiteral("Quorvex Report")));
    EXPECT_EQ(report.count(QStringLiteral("Match: very high probability")), perClass.value(QStringLiteral("very high")));

    const SRun again = run({QStringLiteral("demo"), QStringLiteral("--out"), out});
    EXPECT_EQ(again.exitCode, 2) << "a folder that is not empty is left alone";
    EXPECT_TRUE(again.err.contains(QStringLiteral("not empty")));
}

// The pieces behind the outputs, directly.

// A study of two cameras from the photos above: a broken file and a photo of
// another size are counted as not compared, a device with too few reference
// photos is left out, and the copies that cannot be made (a crop larger than
// the photo) are not compared either.
TEST_F(CliTest, ValidateCountsEveryPairOnce)
{
    const QDir set(path(QStringLiteral("set")));
    for (const char* sub : {"cam-a/reference", "cam-a/questioned", "cam-b/reference", "cam-b/questioned",
                            "cam-c/reference", "cam-c/questioned", "not-a-device"})
        ASSERT_TRUE(set.mkpath(QString::fromLatin1(sub)));
    for (int i = 0; i < s_references.size(); ++i)
        ASSERT_TRUE(QFile::copy(s_references.at(i), set.filePath(QStringLiteral("cam-a/reference/r%1.jpg").arg(i))));
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(QFile::copy(s_questioned.at(i), set.filePath(QStringLiteral("cam-a/questioned/q%1.jpg").arg(i))));
    ASSERT_TRUE(QFile::copy(path(QStringLiteral("extra/broken.jpg")),
                            set.filePath(QStringLiteral("cam-a/questioned/x.jpg"))));
    const camsim::Camera b(unit(2));
    for (int i = 0; i < 3; ++i)
        shoot(b, i == 0 ? camsim::SceneKind::Flat : camsim::SceneKind::Gradient, 50 + static_cast<uint64_t>(i),
              set.filePath(QStringLiteral("cam-b/reference/r%1.jpg").arg(i)));
    for (int i = 3; i < 5; ++i)
        ASSERT_TRUE(QFile::copy(s_questioned.at(i), set.filePath(QStringLiteral("cam-b/questioned/q%1.jpg").arg(i))));
    camsim::CameraConfig larger = unit(2);
    larger.width = 1280;
    larger.height = 1024; // not 4:3: no resize of the fingerprint's image either
    shoot(camsim::Camera(larger), camsim::SceneKind::Natural, 60,
          set.filePath(QStringLiteral("cam-b/questioned/z.jpg")));
    ASSERT_TRUE(QFile::copy(s_references.at(0), set.filePath(QStringLiteral("cam-c/reference/r.jpg"))));

    // An output that would replace a photo is refused before anything runs.
    const QString photo = set.filePath(QStringLiteral("cam-a/questioned/q0.jpg"));
    const QByteArray photoBytes = readBytes(photo);
    EXPECT_EQ(run({QStringLiteral("validate"), QStringLiteral("--json"), photo, set.path()}).exitCode, 1);
    EXPECT_EQ(readBytes(photo), photoBytes);

    const QString jsonPath = path(QStringLiteral("study.jsonl"));
    const QString reportPath = path(QStringLiteral("study.pdf"));
    const SRun result = run({QStringLiteral("validate"), QStringLiteral("--variants"), QStringLiteral("--json"),
                             jsonPath, QStringLiteral("--report"), reportPath, set.path()},
                            300000);
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_TRUE(result.err.contains(QStringLiteral("cam-c cannot be learned and is left out: not enough")));
    EXPECT_TRUE(result.err.contains(QStringLiteral("not-a-device")));

    const QList<QJsonObject> pairs = [&] {
        QList<QJsonObject> objects;
        for (const QString& line : lines(QString::fromUtf8(readBytes(jsonPath))))
            objects.append(QJsonDocument::fromJson(line.toUtf8()).object());
        return objects;
    }();
    const QStringList variants = {QStringLiteral("original"),      QStringLiteral("rotated-90"),
                                  QStringLiteral("exif-rotated"),  QStringLiteral("crop-1600x1200"),
                                  QStringLiteral("crop-1024x768"), QStringLiteral("jpeg-75"),
                                  QStringLiteral("scaled-80"),     QStringLiteral("scaled-50")};
    ASSERT_EQ(pairs.size(), 2 * 7 * variants.size()) << "two fingerprints, seven photos, every variant";
    double weakestTrue = 1e300;
    double strongestFalse = -1e300;
    int trueCompared = 0;
    int falseCompared = 0;
    for (const QJsonObject& o : pairs)
    {
        SCOPED_TRACE(QJsonDocument(o).toJson(QJsonDocument::Compact).toStdString());
        ASSERT_EQ(o.keys().size(), 9);
        const QString fingerprint = o.value(QStringLiteral("fingerprint")).toString();
        const QString photoPath = o.value(QStringLiteral("photo")).toString();
        const QString variant = o.value(QStringLiteral("variant")).toString();
        const bool truePair = o.value(QStringLiteral("true_pair")).toBool();
        ASSERT_TRUE(variants.contains(variant));
        EXPECT_TRUE(QFileInfo(photoPath).isAbsolute() && QFile::exists(photoPath)) << "the original photo";
        EXPECT_EQ(truePair, photoPath.contains(QLatin1Char('/') + fingerprint + QLatin1Char('/')));
        const bool compared = o.value(QStringLiteral("status")).toString() == QStringLiteral("success") &&
                              o.value(QStringLiteral("reason")).toString().isEmpty();
        // Not compared: the broken file, crops larger than the photo (q1 is portrait), and
        // the larger photo unless cropped or scaled down to fit inside the fingerprint.
        const QString name = QFileInfo(photoPath).fileName();
        const bool expectCompared =
            name != QLatin1String("x.jpg") && variant != variants.at(3) &&
            !(name == QLatin1String("q1.jpg") && variant == variants.at(4)) &&
            (name != QLatin1String("z.jpg") || variants.indexOf(variant) == 4 || variants.indexOf(variant) == 7);
        EXPECT_EQ(compared, expectCompared);
        EXPECT_TRUE(compared || !o.value(QStringLiteral("matched")).toBool());
        const double pce = o.value(QStringLiteral("pce")).toDouble();
        if (variant == variants.at(0) && compared)
        {
            (truePair ? trueCompared : falseCompared) += 1;
            if (truePair)
                weakestTrue = qMin(weakestTrue, pce);
            else
                strongestFalse = qMax(strongestFalse, pce);
            EXPECT_EQ(o.value(QStringLiteral("matched")).toBool(), truePair);
        }
    }
    EXPECT_EQ(trueCompared, 5);
    EXPECT_EQ(falseCompared, 5);

    const QStringList out = lines(result.out);
    ASSERT_FALSE(out.isEmpty());
    EXPECT_EQ(out.last(), QStringLiteral("true pairs matched 5/5, false pairs matched 0/5, weakest true PCE %1, "
                                         "strongest false PCE %2")
                              .arg(weakestTrue, 0, 'f', 1)
                              .arg(strongestFalse, 0, 'f', 1));
    for (const QString& expected :
         {QStringLiteral("cam-a        3/3 +1nc  0/2 +1nc"), QStringLiteral("cam-b        0/3 +1nc  2/2 +1nc"),
          QStringLiteral("Not compared: 2 true pairs, 2 false pairs"),
          QStringLiteral("AUC (a true pair scores above a false one): 1.0000"),
          QStringLiteral("cam-c: left out, learning failed: not enough reference photos")})
        EXPECT_TRUE(result.out.contains(expected)) << expected.toStdString() << "\n" << result.out.toStdString();
    EXPECT_TRUE(result.out.contains(
        QRegularExpression(QStringLiteral("\\ncrop-1600x1200 +0/0 +7 +0/0 +7 +- +-\\n"))));
    const QString report = pdfText(reportPath);
    EXPECT_TRUE(report.contains(out.last())) << report.toStdString();
    EXPECT_TRUE(report.contains(QStringLiteral("crop-1600x1200")));

#ifdef Q_OS_UNIX
    // Stopped while matching, the study leaves no fingerprint or copy behind.
    const QString temp = path(QStringLiteral("study-temp"));
    ASSERT_TRUE(QDir().mkpath(temp));
    QProcess process;
    QProcessEnvironment env = childEnvironment(s_dir->path());
    env.insert(QStringLiteral("TMPDIR"), temp);
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(QUORVEX_CLI_PATH),
                  {QStringLiteral("validate"), QStringLiteral("--variants"), QStringLiteral("--threads"),
                   QStringLiteral("1"), set.path()});
    ASSERT_TRUE(process.waitForStarted());
    process.setReadChannel(QProcess::StandardError);
    QByteArray err;
    while (!err.contains("matching") && process.waitForReadyRead(60000))
        err += process.readAllStandardError();
    ASSERT_TRUE(err.contains("matching"));
    ASSERT_FALSE(QDir(temp).isEmpty()) << "the fingerprints are there while it runs";
    ASSERT_EQ(::kill(static_cast<pid_t>(process.processId()), SIGTERM), 0);
    ASSERT_TRUE(process.waitForFinished(60000));
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 130) << (err + process.readAllStandardError()).toStdString();
    EXPECT_TRUE(QDir(temp).entryList({QStringLiteral("quorvex-*")}, QDir::AllEntries | QDir::Hidden).isEmpty());
#endif
}

TEST(CliFormat, CsvFieldsAreQuotedOnlyWhenNeeded)
{
    EXPECT_EQ(cli::csvField(QStringLiteral("/a/b.jpg")), QStringLiteral("/a/b.jpg"));
    EXPECT_EQ(cli::csvField(QStringLiteral("/a,b/c.jpg")), QStringLiteral("\"/a,b/c.jpg\""));
    EXPECT_EQ(cli::csvField(QStringLiteral("say \"x\"")), QStringLiteral("\"say \"\"x\"\"\""));
    EXPECT_EQ(cli::csvField(QStringLiteral("two\nlines")), QStringLiteral("\"two\nlines\""));
}

TEST(CliFormat, OutcomesOfEveryKind)
{
    cli::SPhotoOutcome outcome;
    outcome.path = QStringLiteral("q/p.jpg");
    outcome.absolutePath = QStringLiteral("/x/q/p.jpg");
    EXPECT_EQ(cli::jsonLine(outcome),
              QStringLiteral("{\"path\":\"/x/q/p.jpg\",\"matched\":false,\"compared\":false,\"probability\":0,"
                             "\"correlation\":0,\"pce\":0,\"scale\":1,\"status\":\"invalid\","
                             "\"class\":\"not processed\",\"reason\":\"\",\"sha256\":null,\"index\":0,"
                             "\"total\":0,\"fingerprint\":\"\",\"orientation\":0}"));
    outcome.index = 3;
    outcome.total = 7;
    outcome.fingerprint = QStringLiteral("/c/a,b.fnp");
    outcome.processed = true;
    outcome.result = {true, 0.995, 0.05, qutils::CQuorvexAPI::Success, 210.5};
    EXPECT_EQ(cli::className(outcome), QStringLiteral("high"));
    EXPECT_EQ(cli::csvLine(outcome),
              QStringLiteral("/x/q/p.jpg,true,true,0.995,0.05,210.5,1,success,high,,,3,7,\"/c/a,b.fnp\",0"));
    outcome.sha256 = QStringLiteral("ba78");
    outcome.result.orientation = 270;
    EXPECT_TRUE(cli::jsonLine(outcome).endsWith(QStringLiteral(
        ",\"reason\":\"\",\"sha256\":\"ba78\",\"index\":3,\"total\":7,\"fingerprint\":\"/c/a,b.fnp\",\"orientation\":270}")));
    EXPECT_TRUE(cli::csvLine(outcome).endsWith(QStringLiteral(",high,,ba78,3,7,\"/c/a,b.fnp\",270")));
    EXPECT_TRUE(cli::tableLine(outcome).startsWith(QStringLiteral("high ")));
    EXPECT_TRUE(cli::tableLine(outcome).endsWith(QStringLiteral("210.5  q/p.jpg")));
    outcome.result.scale = 0.8;
    EXPECT_TRUE(cli::jsonLine(outcome).contains(QStringLiteral("\"pce\":210.5,\"scale\":0.8,")));
    EXPECT_TRUE(cli::tableLine(outcome).endsWith(QStringLiteral("210.5  q/p.jpg  (scale 0.80)")));
    // Not compared: no numbers, the reason in words, counted apart.
    cli::SPhotoOutcome notCompared = outcome;
    notCompared.result = {false, 0.0, 0.0, qutils::CQuorvexAPI::ImageFingerprintInconsistentSize, 0.0,
                          QStringLiteral("photo too small")};
    EXPECT_EQ(cli::csvLine(notCompared), QStringLiteral("/x/q/p.jpg,false,false,0,0,0,1,"
                                                        "imagefingerprintinconsistentsize,not compared,photo too small,ba78,"
                                                        "3,7,\"/c/a,b.fnp\",0"));
    EXPECT_EQ(cli::tableLine(notCompared),
              QStringLiteral("not compared            -          -  q/p.jpg  Not compared: Size is incompatible with "
                             "fingerprint (photo too small)"));
    cli::SPhotoOutcome skipped = notCompared;
    skipped.result.status = qutils::CQuorvexAPI::InconsistentMetadata;
    skipped.result.reason = QStringLiteral("EXIF: X");
    EXPECT_TRUE(cli::tableLine(skipped).endsWith(QStringLiteral("Not compared: Different camera type (EXIF: X)")));
    outcome.result = {false, 0.0, 0.0, qutils::CQuorvexAPI::BrokenImage, 0.0};
    EXPECT_EQ(cli::className(outcome), QStringLiteral("not found"));
    EXPECT_TRUE(cli::tableLine(outcome).endsWith(QStringLiteral("q/p.jpg  (File cannot be opened)")));
    cli::SPhotoOutcome refused;
    refused.path = QStringLiteral("q/pipe.jpg");
    refused.reason = QStringLiteral("not a regular file, say");
    EXPECT_TRUE(cli::tableLine(refused).endsWith(QStringLiteral("q/pipe.jpg  (not a regular file, say)")));
    EXPECT_TRUE(cli::csvLine(refused).endsWith(QStringLiteral(",not processed,\"not a regular file, say\",,0,0,,0")));

    // Every kind of line reads back into an outcome that writes it again.
    cli::SPhotoOutcome nan = outcome;
    nan.result = {false, std::nan(""), 0.0, qutils::CQuorvexAPI::Success, 3.0};
    refused.total = 7;
    refused.absolutePath = QStringLiteral("/x/q/pipe%1.jpg");
    cli::SPhotoOutcome high = outcome;
    high.result = {true, 0.995, 0.05, qutils::CQuorvexAPI::Success, 210.5};
    high.result.orientation = 270;
    for (const cli::SPhotoOutcome& kind : {high, outcome, notCompared, skipped, refused, nan})
    {
        const QByteArray line = cli::jsonLine(kind).toUtf8();
        cli::SPhotoOutcome read;
        QString error;
        ASSERT_TRUE(cli::readJsonLine(line, &read, &error)) << error.toStdString() << line.toStdString();
        EXPECT_EQ(read.absolutePath, kind.absolutePath);
        EXPECT_EQ(cli::csvLine(read), cli::csvLine(kind));
        EXPECT_EQ(cli::className(read), cli::className(kind));
    }
    const QByteArray good = cli::jsonLine(high).toUtf8();
    const struct
    {
        QByteArray line;
        const char* error;
    } bad[] = {
        {"not json", "not a JSON object"},
        {"[1]", "not a JSON object"},
        {QByteArray(good).replace("\"total\":7", "\"total\":\"7\""), "wrong type: total"},
        {QByteArray(good).replace("\"index\":3", "\"index\":2.5"), "wrong type: index"},
        {QByteArray(good).replace("\"index\":3", "\"index\":7"), "not below total"},
        {QByteArray(good).replace("\"matched\":true", "\"matched\":1"), "wrong type: matched"},
        {QByteArray(good).replace("\"status\":\"success\"", "\"status\":\"fine\""), "wrong type: status"},
        {QByteArray(good).replace(",\"orientation\":270", ""), "wrong type: orientation"},
        {QByteArray(good).replace("\"class\":\"high\"", "\"class\":\"low\""), "as 'analyze' writes it"},
        {QByteArray(good).replace("{", "{ "), "as 'analyze' writes it"},
        {good + QByteArray(cli::MaximumJsonLineBytes, ' '), "too long"},
    };
    for (const auto& c : bad)
    {
        cli::SPhotoOutcome read;
        QString error;
        EXPECT_FALSE(cli::readJsonLine(c.line, &read, &error)) << c.line.left(200).toStdString();
        EXPECT_TRUE(error.contains(QLatin1String(c.error))) << error.toStdString();
    }

    const cli::SSummary summary = cli::summarize({outcome, cli::SPhotoOutcome(), notCompared, skipped}, 6.0);
    EXPECT_EQ(cli::summaryLines(summary),
              QStringList({QStringLiteral("Photos analyzed: 3/4"), QStringLiteral("Fingerprints found: 0"),
                           QStringLiteral("Fingerprints not found: 1"), QStringLiteral("Not compared: 2"),
                           QStringLiteral("Time elapsed: 6.00 s"), QStringLiteral("Average time per image: 2.00 s")}));
}

// The engine's answer about one photo, through the library's reading, to the
// verdict in the table, the JSON line and the CSV rows.
TEST(CliFormat, IdentificationsOfEveryKind)
{
    using qutils::CQuorvexAPI;
    const QStringList library = {QStringLiteral("/l/a%1.fnp"), QStringLiteral("/l/b,c.fnp")};
    const QString entryB = QStringLiteral("{\"index\":1,\"sensor_matched\":1,\"probability\":0.996,\"corr\":0.1,"
                                          "\"pce\":250,\"scale\":0.5,\"orientation\":90}");
    const QString entryA = QStringLiteral("{\"index\":0,\"sensor_matched\":1,\"probability\":0.9999,\"corr\":0.2,"
                                          "\"pce\":900,\"scale\":1,\"orientation\":0}");
    const QString nearA = QStringLiteral("{\"index\":0,\"sensor_matched\":0,\"probability\":0.3,\"pce\":7.5}");
    const struct
    {
        CQuorvexAPI::EStatus engineStatus;
        QString answer;
        QString verdict;
        CQuorvexAPI::EStatus status;
        int csvRows;
    } cases[] = {
        // Strongest first whatever the engine's order; an index outside the library is dropped.
        {CQuorvexAPI::Success,
         QStringLiteral("{\"compared\":2,\"reason\":\"\",\"matches\":[%1,%2,{\"index\":2,\"sensor_matched\":1,"
                        "\"pce\":5000}],\"best\":%2}")
             .arg(entryB, entryA),
         QStringLiteral("a%1.fnp (very high, PCE 900.0), b,c.fnp (high, PCE 250.0)"), CQuorvexAPI::Success, 2},
        {CQuorvexAPI::Success, QStringLiteral("{\"compared\":2,\"matches\":[],\"best\":%1}").arg(nearA),
         QStringLiteral("no camera in the library (nearest a%1.fnp, PCE 7.5)"), CQuorvexAPI::Success, 1},
        {CQuorvexAPI::Success, QStringLiteral("{\"compared\":2,\"matches\":[],\"best\":null}"),
         QStringLiteral("no camera in the library"), CQuorvexAPI::Success, 1},
        {CQuorvexAPI::Success, QStringLiteral("{\"compared\":0,\"reason\":\"/q/p.jpg: size\",\"matches\":[]}"),
         QStringLiteral("not compared: the photo's size fits the fingerprint at no orientation and scale tried"),
         CQuorvexAPI::ImageFingerprintInconsistentSize, 1},
        // Compared with nothing is never "no camera", even without a reason.
        {CQuorvexAPI::Success, QStringLiteral("{\"compared\":0,\"matches\":[],\"best\":%1}").arg(nearA),
         QStringLiteral("not compared: no fingerprint of the library could be compared with it"),
         CQuorvexAPI::ImageFingerprintInconsistentSize, 1},
        {CQuorvexAPI::BrokenImage, QStringLiteral("{\"reason\":\"/q/p.jpg: JPEG truncated\",\"matches\":[%1]}").arg(entryA),
         QStringLiteral("failed: File cannot be opened (JPEG truncated)"), CQuorvexAPI::BrokenImage, 1},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.answer.toStdString());
        cli::SIdentifiedPhoto photo;
        photo.outcome.path = QStringLiteral("q/p.jpg");
        photo.outcome.absolutePath = QStringLiteral("/q/p.jpg");
        photo.outcome.processed = true;
        photo.index = 3;
        photo.total = 9;
        photo.identification =
            CFingerprintLibrary::readAnswer(c.engineStatus, c.answer, QStringLiteral("/q/p.jpg"), library);
        EXPECT_EQ(photo.identification.status, c.status);
        EXPECT_EQ(cli::identifyTableLine(photo), QStringLiteral("q/p.jpg: ") + c.verdict);
        const QStringList rows = cli::identifyCsvRows(photo);
        EXPECT_EQ(rows.size(), c.csvRows);
        for (const QString& row : rows)
            EXPECT_TRUE(row.endsWith(QStringLiteral(",3,9"))) << row.toStdString();
        const QJsonObject o = QJsonDocument::fromJson(cli::identifyJsonLine(photo).toUtf8()).object();
        EXPECT_EQ(o.value(QStringLiteral("matches")).toArray().size(), photo.identification.matches.size());
        if (c.status != CQuorvexAPI::Success)
        {
            EXPECT_TRUE(o.value(QStringLiteral("best")).isNull());
        }
        // Read back, the line tells the same story.
        cli::SIdentifiedPhoto read;
        QString error;
        ASSERT_TRUE(cli::readIdentifyJsonLine(cli::identifyJsonLine(photo).toUtf8(), &read, &error))
            << error.toStdString();
        EXPECT_EQ(cli::identifyTableLine(read), QStringLiteral("/q/p.jpg: ") + c.verdict);
        EXPECT_EQ(cli::identifyCsvRows(read), rows);
    }
    cli::SIdentifiedPhoto first;
    first.identification = CFingerprintLibrary::readAnswer(CQuorvexAPI::Success, cases[0].answer, QString(), library);
    first.outcome.processed = true;
    EXPECT_TRUE(cli::identifyJsonLine(first).contains(
        QStringLiteral("\"best\":{\"fingerprint\":\"/l/a%1.fnp\",\"pce\":900,\"probability\":0.9999,"
                       "\"class\":\"very high\",\"scale\":1,\"orientation\":0}")));
    EXPECT_EQ(cli::identifyCsvRows(first).at(1),
              QStringLiteral(",,2,\"/l/b,c.fnp\",250,0.996,high,0.5,90,success,,0,0"));

    // Never reached: no comparison, no camera, and counted apart.
    cli::SIdentifiedPhoto interrupted;
    interrupted.outcome.absolutePath = QStringLiteral("/q/p.jpg");
    interrupted.outcome.reason = QStringLiteral("the analysis was interrupted");
    interrupted.identification = first.identification;
    EXPECT_EQ(cli::identifyJsonLine(interrupted),
              QStringLiteral("{\"path\":\"/q/p.jpg\",\"sha256\":null,\"compared\":0,\"matches\":[],"
                             "\"status\":\"invalid\",\"reason\":\"the analysis was interrupted\",\"best\":null,"
                             "\"index\":0,\"total\":0,\"library\":\"\"}"));
    interrupted.total = 1;
    cli::SIdentifiedPhoto read;
    QString error;
    ASSERT_TRUE(cli::readIdentifyJsonLine(cli::identifyJsonLine(interrupted).toUtf8(), &read, &error));
    EXPECT_EQ(cli::verdictOf(read), cli::EVerdict::NotProcessed);
    first.total = 4;
    const QByteArray good = cli::identifyJsonLine(first).toUtf8();
    const struct
    {
        QByteArray line;
        const char* error;
    } bad[] = {
        {"[1]", "not a JSON object"},
        {QByteArray(good).replace("\"pce\":900", "\"pce\":\"900\""), "wrong type: matches.pce, best.pce"},
        {QByteArray(good).replace("\"status\":\"success\"", "\"status\":\"invalid\""), "as 'identify' writes it"},
        {QByteArray(good).replace("\"very high\"", "\"low\""), "as 'identify' writes it"},
        {QByteArray(good).replace("\"index\":0", "\"index\":4"), "not below total"},
        {QByteArray(good).replace(",\"library\":\"\"", ""), "wrong type: library"},
    };
    for (const auto& c : bad)
    {
        EXPECT_FALSE(cli::readIdentifyJsonLine(c.line, &read, &error)) << c.line.toStdString();
        EXPECT_TRUE(error.contains(QLatin1String(c.error))) << error.toStdString();
    }
    EXPECT_EQ(cli::identifySummaryLines({first, interrupted}, 1.0).mid(0, 5),
              QStringList({QStringLiteral("Photos identified: 1"), QStringLiteral("No camera in the library: 0"),
                           QStringLiteral("Not compared: 0"), QStringLiteral("Failed: 0"),
                           QStringLiteral("Not processed: 1")}));
}

TEST(CliFormat, ValidationStatistics)
{
    const struct
    {
        QList<double> truePces;
        QList<double> falsePces;
        double auc;
        double median;
        double p10; // of the true pairs
    } cases[] = {
        {{100, 200, 300}, {1, 2}, 1.0, 200, 120},
        {{3, 1}, {1, 0}, 0.875, 2, 1.2},   // one tie counts half
        {{5}, {5, 9}, 0.25, 5, 5},
        {{}, {1}, -1.0, 0, 0},             // nothing to compare
        {{-4, 10, 0, 7}, {}, -1.0, 3.5, -2.8},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.truePces.size());
        EXPECT_DOUBLE_EQ(cli::areaUnderCurve(c.truePces, c.falsePces), c.auc);
        const cli::SPceSpread spread = cli::pceSpread(c.truePces);
        EXPECT_NEAR(spread.median, c.median, 1e-9);
        EXPECT_NEAR(spread.p10, c.p10, 1e-9);
    }

    // A pair the engine answered with a reason is not compared, and neither is one it never saw.
    const auto pair = [](const char* fp, const char* device, double pce, bool matched, const char* reason)
    {
        cli::SValidationPair p;
        p.fingerprintDevice = QString::fromLatin1(fp);
        p.photoDevice = QString::fromLatin1(device);
        p.photoPath = QStringLiteral("/s/%1/q.jpg").arg(p.photoDevice);
        p.variant = QStringLiteral("original");
        p.processed = true;
        p.result = {matched, 0.9, 0.01, qutils::CQuorvexAPI::Success, pce, QString::fromLatin1(reason)};
        return p;
    };
    QList<cli::SValidationPair> pairs = {pair("a", "a", 139.24, true, ""), pair("a", "a", 0, false, "size"),
                                         pair("a", "b", 4.56, false, ""), pair("b", "a", 70, true, ""),
                                         pair("b", "b", 55, false, "")};
    pairs.append(pairs.at(2));
    pairs.last().processed = false;
    EXPECT_EQ(cli::summaryLine(pairs), QStringLiteral("true pairs matched 1/2, false pairs matched 1/2, "
                                                      "weakest true PCE 55.0, strongest false PCE 70.0"));
    EXPECT_EQ(cli::confusionTable(pairs, {QStringLiteral("a"), QStringLiteral("b")},
                                  {QStringLiteral("a"), QStringLiteral("b")}),
              QStringList({QStringLiteral("fingerprint  a         b"),
                           QStringLiteral("a            1/1 +1nc  0/1 +1nc"),
                           QStringLiteral("b            1/1       0/1")}));
    EXPECT_EQ(cli::validationJsonLine(pairs.at(1)),
              QStringLiteral("{\"fingerprint\":\"a\",\"photo\":\"/s/a/q.jpg\",\"variant\":\"original\","
                             "\"true_pair\":true,\"pce\":0,\"probability\":0.9,\"matched\":false,"
                             "\"status\":\"success\",\"reason\":\"size\"}"));
}

TEST(CliFormat, ProgressAndLearningLines)
{
    const cli::CProgressLine start(QStringLiteral("Analyzed"), 10, false);
    EXPECT_EQ(start.text(false), QStringLiteral("Analyzed 0/10 photos (0%)  - photos/s  remaining unknown"));
    EXPECT_EQ(start.text(true),
              QStringLiteral("[------------------------] 0/10  - photos/s  remaining unknown"));
    EXPECT_EQ(cli::CLearnJob::photoLine(3, 12, 0.0421f, QStringLiteral("a/b.jpg")),
              QStringLiteral("photo  3/12  NMSE 0.0421  a/b.jpg"));
    EXPECT_EQ(cli::CLearnJob::photoLine(1, 3, 1.0f, QStringLiteral("x.jpg")),
              QStringLiteral("photo 1/3  NMSE 1.0000  x.jpg"));
    EXPECT_EQ(cli::CLearnJob::photoLine(9, 9, 0.00042f, QStringLiteral("x.jpg")),
              QStringLiteral("photo 9/9  NMSE 4.20e-04  x.jpg"));
}

TEST(CliCommandLine, ValuesAndOrder)
{
    const cli::SCommandLine c = cli::parseCommandLine(
        {QStringLiteral("analyze"), QStringLiteral("b"), QStringLiteral("--threads=3"), QStringLiteral("-f"),
         QStringLiteral("k.fnp"), QStringLiteral("--case=2026/17"), QStringLiteral("--examiner"),
         QStringLiteral("A. Novak"), QStringLiteral("--notes"), QStringLiteral("seized, bag 4"),
         QStringLiteral("--json"), QStringLiteral("-"), QStringLiteral("--"), QStringLiteral("--odd-name.jpg"),
         QStringLiteral("a")});
    ASSERT_EQ(c.command, cli::ECommand::Analyze) << c.error.toStdString();
    EXPECT_EQ(c.caseNumber, QStringLiteral("2026/17"));
    EXPECT_EQ(c.examiner, QStringLiteral("A. Novak"));
    EXPECT_EQ(c.notes, QStringLiteral("seized, bag 4"));
    EXPECT_FALSE(cli::parseCommandLine({QStringLiteral("validate"), QStringLiteral("--case=1"), QStringLiteral("s")})
                     .error.isEmpty()) << "the report's case fields belong to analyze";
    EXPECT_EQ(c.threads, 3);
    EXPECT_EQ(c.fingerprintFile, QStringLiteral("k.fnp"));
    EXPECT_EQ(c.jsonFile, QStringLiteral("-"));
    EXPECT_EQ(c.paths,
              QStringList({QStringLiteral("b"), QStringLiteral("--odd-name.jpg"), QStringLiteral("a")}));

    const cli::SCommandLine same = cli::parseCommandLine(
        {QStringLiteral("analyze"), QStringLiteral("-f"), QStringLiteral("k.fnp"), QStringLiteral("--json"),
         QStringLiteral("r"), QStringLiteral("--csv"), QStringLiteral("r"), QStringLiteral("a")});
    EXPECT_EQ(same.command, cli::ECommand::None);
    EXPECT_FALSE(same.error.isEmpty());

    const cli::SCommandLine study = cli::parseCommandLine(
        {QStringLiteral("validate"), QStringLiteral("--variants"), QStringLiteral("--report=r.pdf"),
         QStringLiteral("s")});
    ASSERT_EQ(study.command, cli::ECommand::Validate) << study.error.toStdString();
    EXPECT_TRUE(study.variants);
    EXPECT_EQ(study.reportFile, QStringLiteral("r.pdf"));
    EXPECT_EQ(study.paths, QStringList{QStringLiteral("s")});

    // The scale-search limit reaches the engine while the line is parsed, before any match.
    qunsetenv("LUMICREST_SCALE_SEARCH");
    EXPECT_TRUE(cli::parseCommandLine({QStringLiteral("validate"), QStringLiteral("s")}).scaleSearch.isEmpty());
    EXPECT_FALSE(qEnvironmentVariableIsSet("LUMICREST_SCALE_SEARCH")) << "not given, not set";
    for (const char* value : {"sized", "off", "full"})
    {
        const cli::SCommandLine limited =
            cli::parseCommandLine({QStringLiteral("analyze"), QStringLiteral("-f"), QStringLiteral("k.fnp"),
                                   QStringLiteral("--scale-search"), QLatin1String(value), QStringLiteral("a")});
        ASSERT_EQ(limited.command, cli::ECommand::Analyze) << limited.error.toStdString();
        EXPECT_EQ(qgetenv("LUMICREST_SCALE_SEARCH"), QByteArray(value));
    }
    const cli::SCommandLine typo = cli::parseCommandLine(
        {QStringLiteral("validate"), QStringLiteral("--scale-search=of"), QStringLiteral("s")});
    EXPECT_EQ(typo.error, QStringLiteral("--scale-search needs full, sized or off, not 'of'"));
    EXPECT_EQ(qgetenv("LUMICREST_SCALE_SEARCH"), QByteArray("full")) << "a refused line changes nothing";
    // An inherited value the engine would refuse is a usage error, unless the option overrides it.
    qputenv("LUMICREST_SCALE_SEARCH", "ful");
    const QStringList plain{QStringLiteral("validate"), QStringLiteral("s")};
    EXPECT_EQ(cli::parseCommandLine(plain).error,
              QStringLiteral("the environment's LUMICREST_SCALE_SEARCH needs full, sized or off, not 'ful'"));
    EXPECT_TRUE(cli::parseCommandLine(QStringList(plain) << QStringLiteral("--scale-search=off")).error.isEmpty());
    qunsetenv("LUMICREST_SCALE_SEARCH");
}

// Shard K of N keeps positions i with i mod N == K-1 of the whole list, the
// refused files (listed after the photos) included.
TEST(CliCommandLine, ShardsSplitTheWholeList)
{
    const struct
    {
        const char* shard;
        int photos;
        int refused;
        QList<int> kept;
        int keptPhotos;
    } cases[] = {
        {"1/1", 4, 1, {0, 1, 2, 3, 4}, 4}, {"1/3", 7, 0, {0, 3, 6}, 3}, {"3/3", 7, 0, {2, 5}, 2},
        {"2/2", 3, 2, {1, 3}, 1},          {"3/3", 1, 2, {2}, 0},        {"6/6", 5, 0, {}, 0},
        {"2/9", 1, 1, {1}, 0},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.shard);
        const cli::SCommandLine line = cli::parseCommandLine(
            {QStringLiteral("analyze"), QStringLiteral("-f"), QStringLiteral("k.fnp"), QStringLiteral("--shard"),
             QLatin1String(c.shard), QStringLiteral("a")});
        ASSERT_EQ(line.command, cli::ECommand::Analyze) << line.error.toStdString();
        cli::SPhotoInputs inputs;
        for (int i = 0; i < c.photos; ++i)
            inputs.photos.append(QFileInfo(QStringLiteral("/p/%1.jpg").arg(i)));
        for (int i = c.photos; i < c.photos + c.refused; ++i)
            inputs.refused.append({QStringLiteral("/p/%1.jpg").arg(i), QStringLiteral("not a regular file")});
        inputs.total = c.photos + c.refused;
        for (int i = 0; i < inputs.total; ++i)
            inputs.indexes.append(i);
        cli::keepShard(inputs, line.shardNumber, line.shardCount);
        EXPECT_EQ(inputs.indexes, c.kept);
        EXPECT_EQ(inputs.total, c.photos + c.refused) << "the whole list's length stays";
        ASSERT_EQ(inputs.photos.size(), c.keptPhotos);
        ASSERT_EQ(inputs.photos.size() + inputs.refused.size(), c.kept.size());
        for (int i = 0; i < c.kept.size(); ++i)
            EXPECT_EQ(i < c.keptPhotos ? inputs.photos.at(i).filePath() : inputs.refused.at(i - c.keptPhotos).path,
                      QStringLiteral("/p/%1.jpg").arg(c.kept.at(i)));
    }
}
