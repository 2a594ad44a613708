// quorvex-cli run as a program, on photos of simulated cameras whose truth is
// known: learning, analysis with its JSON, CSV and table outputs, exit codes,
// interruption, shards, identification and the demo; plus the small
// formatting pieces directly.
#include "commandline.h"
#include "identifyformat.h"
#include "learnjob.h"
#include "photoinputs.h"
#include "progressline.h"
#include "resultformat.h"
#include "validation.h"

#include "camsim/camera.h"

#include <QCryptographicHash>
#include <QDateTime>
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

#include <memory>
#include <utility>

#ifdef Q_OS_UNIX
#include <csignal>
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

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    file.write(bytes);
}

QByteArray readBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString readText(const QString& path)
{
    return QString::fromUtf8(readBytes(path));
}

// The text of a PDF as a reader extracts it, each page's whitespace folded
// to single spaces (table cells wrap), pages separated by form feeds.
QString pdfText(const QString& path)
{
    QProcess process;
    process.start("pdftotext", {path, "-"});
    if (!process.waitForFinished(60000))
        return QString();
    QStringList pages = QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\f'));
    for (QString& page : pages)
        page = page.simplified();
    return pages.join(QLatin1Char('\f'));
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
        if (quoted && c == QLatin1Char('"') && i + 1 < text.size() && text.at(i + 1) == QLatin1Char('"'))
            field += text.at(++i);
        else if (c == QLatin1Char('"'))
            quoted = !quoted;
        else if (quoted || (c != QLatin1Char(',') && c != QLatin1Char('\n')))
            field += c;
        else
        {
            row.append(field);
            field.clear();
            if (c == QLatin1Char('\n'))
                rows.append(std::exchange(row, {}));
        }
    }
    if (!field.isEmpty() || !row.isEmpty())
        rows.append(row << field);
    return rows;
}

const QStringList JsonKeys = {"path",   "matched", "compared", "probability", "correlation",
                              "pce",    "scale",   "status",   "class",       "reason",
                              "sha256", "index",   "total",    "fingerprint", "orientation"};
const QStringList MatchClasses = {"very high", "high", "medium", "low"};

// Fails the test unless the line is an object with exactly these keys, in this order.
QJsonObject objectWithKeys(const QString& line, const QStringList& keys)
{
    QJsonParseError error{};
    const QJsonObject object = QJsonDocument::fromJson(line.toUtf8(), &error).object();
    EXPECT_EQ(error.error, QJsonParseError::NoError) << line.toStdString();
    QStringList sorted = keys;
    sorted.sort();
    EXPECT_EQ(object.keys(), sorted) << line.toStdString();
    int at = 0;
    for (const QString& key : keys)
    {
        const int next = line.indexOf(QLatin1Char('"') + key + "\":", at);
        EXPECT_GE(next, at) << key.toStdString() << " out of order in " << line.toStdString();
        at = qMax(at, next);
    }
    return object;
}

QList<QJsonObject> parseJsonLines(const QString& text)
{
    QList<QJsonObject> objects;
    for (const QString& line : lines(text))
        objects.append(objectWithKeys(line, JsonKeys));
    return objects;
}

// One key's values over a run's lines, or one line's values of several keys, as text.
QStringList values(const QList<QJsonObject>& objects, const char* key)
{
    QStringList result;
    for (const QJsonObject& o : objects)
        result.append(o[key].toVariant().toString());
    return result;
}

QStringList fields(const QJsonObject& object, const QStringList& keys)
{
    QStringList result;
    for (const QString& key : keys)
        result.append(object[key].toVariant().toString());
    return result;
}

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
        for (const char* sub : {"refs", "questioned, \"mixed\"", "extra", "empty", "nested/inner"})
            ASSERT_TRUE(QDir().mkpath(path(sub)));
        s_questionedFolder = path("questioned, \"mixed\"");

        const camsim::Camera a(unit(1));
        const camsim::Camera b(unit(2));
        const camsim::SceneKind refScenes[] = {camsim::SceneKind::Flat, camsim::SceneKind::Gradient,
                                               camsim::SceneKind::Natural, camsim::SceneKind::Natural};
        for (int i = 0; i < 4; ++i)
        {
            s_references.append(path(QStringLiteral("refs/ref-%1.jpg").arg(i + 1)));
            shoot(a, refScenes[i], 10 + static_cast<uint64_t>(i), s_references.last());
        }
        // Sorted by name this is also the order the folder is analyzed in;
        // B sees A's scenes, so only the sensor can tell them apart.
        struct
        {
            const camsim::Camera* camera;
            camsim::SceneKind scene;
            uint64_t seed;
            int rotation;
            const char* name;
        } const plan[] = {
            {&a, camsim::SceneKind::Natural, 31, 0, "a-1.jpg"},
            {&a, camsim::SceneKind::Natural, 32, 90, "a-2-rotated.jpg"},
            {&a, camsim::SceneKind::Edges, 33, 0, "a-3.jpg"},
            {&b, camsim::SceneKind::Natural, 31, 0, "b-1.jpg"},
            {&b, camsim::SceneKind::Edges, 33, 0, "b-2.jpg"},
        };
        for (const auto& step : plan)
        {
            s_questioned.append(QDir(s_questionedFolder).filePath(QString::fromLatin1(step.name)));
            shoot(*step.camera, step.scene, step.seed, s_questioned.last(), step.rotation);
        }

        // A photo of A whose EXIF names another model, a larger sensor's photo
        // (not 4:3: no crop, reduction or resize of the fingerprint's image
        // fits it), a file that is no photo, and a text file.
        camsim::ShotConfig relabelled;
        relabelled.scene = camsim::SceneKind::Natural;
        relabelled.sceneSeed = 41;
        relabelled.exifModel = "QX-9";
        a.shoot(relabelled, path("extra/relabelled.jpg").toStdString());
        shoot(camsim::Camera(larger()), camsim::SceneKind::Natural, 42, path("extra/larger.jpg"));
        writeBytes(path("extra/broken.jpg"), QByteArray::fromRawData("\xff\xd8\xff\xe0 not a photo", 16));
        writeBytes(path("extra/notes.txt"), "notes");

        // A folder with a subfolder, for --recursive.
        ASSERT_TRUE(QFile::copy(s_questioned.at(2), path("nested/top.jpg")));
        ASSERT_TRUE(QFile::copy(s_questioned.at(0), path("nested/inner/a.jpg")));
        ASSERT_TRUE(QFile::copy(s_questioned.at(3), path("nested/inner/b.JPG")));

        s_fingerprint = path("camera-a.fnp");
        s_learn = run(args("learn -o $fp @refs"));
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

    static camsim::CameraConfig larger()
    {
        camsim::CameraConfig c = unit(2);
        c.width = 1280;
        c.height = 1024;
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

    static QString path(const QString& relative) { return QDir(s_dir->path()).filePath(relative); }

    // "@name" is a path in the test's folder, "$fp" the fingerprint, "$qdir" the
    // questioned folder, "$qN" and "$rN" its photos and the reference photos.
    static QString arg(const QString& word)
    {
        if (word.startsWith(QLatin1Char('@')))
            return path(word.mid(1));
        if (word == "$fp" || word == "$qdir")
            return word == "$fp" ? s_fingerprint : s_questionedFolder;
        if (word.startsWith("$q") || word.startsWith("$r"))
            return (word.at(1) == QLatin1Char('q') ? s_questioned : s_references).at(word.mid(2).toInt());
        return word;
    }

    // Arguments split at spaces, each through arg().
    static QStringList args(const QString& line)
    {
        QStringList result;
        for (const QString& word : line.split(QLatin1Char(' '), Qt::SkipEmptyParts))
            result.append(arg(word));
        return result;
    }

    // The tool's log and settings go to the test's folder, never the user's.
    static QProcessEnvironment environment(const QPair<QString, QString>& variable = {})
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_DATA_HOME", path("data"));
        env.insert("XDG_CONFIG_HOME", path("config"));
        if (!variable.first.isEmpty())
            env.insert(variable.first, variable.second);
        return env;
    }

    static std::unique_ptr<QProcess> start(const QStringList& arguments,
                                           const QPair<QString, QString>& variable = {},
                                           const QString& program = QUORVEX_CLI_PATH)
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(environment(variable));
        process->setWorkingDirectory(s_dir->path());
        process->start(program, arguments);
        return process;
    }

    static SRun run(const QStringList& arguments, const QPair<QString, QString>& variable = {},
                    const QString& program = QUORVEX_CLI_PATH, int timeoutMs = 300000)
    {
        const std::unique_ptr<QProcess> process = start(arguments, variable, program);
        SRun result;
        if (!process->waitForFinished(timeoutMs))
        {
            process->kill();
            process->waitForFinished();
            return result;
        }
        result.normalExit = process->exitStatus() == QProcess::NormalExit;
        result.exitCode = process->exitCode();
        result.out = QString::fromUtf8(process->readAllStandardOutput());
        result.err = QString::fromUtf8(process->readAllStandardError());
        return result;
    }

#ifdef Q_OS_UNIX
    // Reads one channel until it holds marker; returns what was read.
    static QByteArray readUntil(QProcess& process, QProcess::ProcessChannel channel, const QByteArray& marker)
    {
        process.setReadChannel(channel);
        QByteArray text;
        while (!text.contains(marker) && process.waitForReadyRead(60000))
            text += process.readAll();
        return text;
    }

    static void stop(QProcess& process, int signal)
    {
        ASSERT_EQ(::kill(static_cast<pid_t>(process.processId()), signal), 0);
        ASSERT_TRUE(process.waitForFinished(60000));
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << "a clean end, not death by the signal";
        EXPECT_EQ(process.exitCode(), 130);
    }
#endif

    static std::unique_ptr<QTemporaryDir> s_dir;
    static QString s_questionedFolder;
    static QStringList s_references;
    static QStringList s_questioned;
    // The questioned photos are A's first, then B's.
    static bool sameCamera(int i)
    {
        return i % 5 < 3;
    }

    static QString s_fingerprint;
    static SRun s_learn;
};

std::unique_ptr<QTemporaryDir> CliTest::s_dir;
QString CliTest::s_questionedFolder;
QStringList CliTest::s_references;
QStringList CliTest::s_questioned;
QString CliTest::s_fingerprint;
SRun CliTest::s_learn;

TEST_F(CliTest, LearnReportsEveryPhotoThenThePropertiesAsInfoDoes)
{
    ASSERT_EQ(s_learn.exitCode, 0) << s_learn.err.toStdString();
    ASSERT_TRUE(QFileInfo(s_fingerprint).isFile());
    const QStringList out = lines(s_learn.out);
    ASSERT_GE(out.size(), 4);
    // One line per reference photo in the folder's sorted order, paths as given;
    // the first photo is all new.
    for (int i = 0; i < 4; ++i)
    {
        const QRegularExpressionMatch m =
            QRegularExpression("^photo (\\d)/4  NMSE (\\S+)  (.+)$").match(out.at(i));
        ASSERT_TRUE(m.hasMatch()) << out.at(i).toStdString();
        EXPECT_EQ(m.captured(1).toInt(), i + 1);
        bool ok = false;
        const double nmse = m.captured(2).toDouble(&ok);
        EXPECT_TRUE(ok && nmse > 0.0 && nmse <= 1.0) << out.at(i).toStdString();
        EXPECT_EQ(m.captured(3), s_references.at(i));
        EXPECT_TRUE(i > 0 || m.captured(2) == "1.0000") << out.at(i).toStdString();
    }
    for (const char* property :
         {"Fingerprint saved to \\S+camera-a\\.fnp\\n", "Number of reference photos:\\s+4\\n",
          "Photo width:\\s+1024\\n", "Camera model \\(EXIF\\):\\s+QX-1\\n"})
        EXPECT_TRUE(s_learn.out.contains(QRegularExpression(property))) << property;
    EXPECT_FALSE(QFile::exists(path("default.log"))) << "no log in the working folder";

    // info tells the same properties, as text and as JSON.
    const SRun json = run(args("info --json $fp"));
    ASSERT_EQ(json.exitCode, 0) << json.err.toStdString();
    const QJsonObject o = QJsonDocument::fromJson(json.out.toUtf8()).object();
    EXPECT_EQ(fields(o, {"width", "height", "trainingimagescount", "manufacturer", "model", "lensinfo"}),
              QStringList({"1024", "768", "4", "Veltrano", "QX-1", "unknown"}));
    EXPECT_TRUE(o["nmse"].toDouble() > 0.0 && o["nmse"].toDouble() < 1.0);
    EXPECT_TRUE(QDateTime::fromString(o["creationdate"].toString(), Qt::ISODate).isValid());
    EXPECT_TRUE(o.contains("description"));

    const SRun plain = run(args("info $fp"));
    ASSERT_EQ(plain.exitCode, 0);
    EXPECT_TRUE(plain.out.contains(QRegularExpression("Photo height:\\s+768\\n")));
    EXPECT_TRUE(plain.out.contains(QRegularExpression("Camera manufacturer \\(EXIF\\):\\s+Veltrano\\n")));
}

// JSON lines against the truth; then the same results on one thread, since each
// photo is judged on its own, with the table, CSV and report telling the same story.
TEST_F(CliTest, AnalyzeOutputsAgreeWithTheTruthAndEachOther)
{
    const SRun result = run(args("analyze -f $fp --json - $qdir"));
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    const QList<QJsonObject> objects = parseJsonLines(result.out);
    ASSERT_EQ(objects.size(), s_questioned.size()) << "only JSON on standard output";
    for (int i = 0; i < objects.size(); ++i)
    {
        const QJsonObject& o = objects.at(i);
        SCOPED_TRACE(o["path"].toString().toStdString());
        // In input order, paths absolute.
        EXPECT_EQ(
            fields(o, {"path", "status", "index", "total", "fingerprint", "matched"}),
            QStringList({QFileInfo(s_questioned.at(i)).absoluteFilePath(), "success", QString::number(i), "5",
                         QFileInfo(s_fingerprint).absoluteFilePath(), sameCamera(i) ? "true" : "false"}));
        if (sameCamera(i))
        {
            EXPECT_EQ(o["orientation"].toInt(), i == 1 ? 270 : 0) << "a-2 was shot turned";
            EXPECT_TRUE(MatchClasses.contains(o["class"].toString()));
            EXPECT_GE(o["pce"].toDouble(), 60.0);
            EXPECT_GT(o["probability"].toDouble(), 0.95);
            EXPECT_GT(o["correlation"].toDouble(), 0.0);
        }
        else
        {
            EXPECT_EQ(o["class"].toString(), "not found");
            EXPECT_LT(o["pce"].toDouble(), 60.0);
        }
    }
    // The summary goes to standard error when standard output carries JSON.
    EXPECT_TRUE(
        result.err.contains("Photos analyzed: 5/5\nFingerprints found: 3\nFingerprints not found: 2\n"))
        << result.err.toStdString();

    const SRun single = run(args(
        "analyze -f $fp --threads 1 --csv @results.csv --json @results.jsonl --report @report.pdf $qdir"));
    ASSERT_EQ(single.exitCode, 0) << single.err.toStdString();
    EXPECT_EQ(readText(path("results.jsonl")), result.out);
    EXPECT_TRUE((single.out + single.err).contains("on 1 thread"));
    // The report: every photo (a name wrapped at its hyphen comes back joined
    // without it), the summary, the footer on every page.
    const QString report = pdfText(path("report.pdf"));
    EXPECT_TRUE(report.contains("Quorvex Report")) << single.err.toStdString();
    EXPECT_TRUE(report.contains("Fingerprints not found 2"));
    for (const QString& name : s_questioned)
        EXPECT_TRUE(QString(report)
                        .remove(QLatin1Char('-'))
                        .contains(QFileInfo(name).fileName().remove(QLatin1Char('-'))))
            << name.toStdString();
    const QStringList pages = report.split(QLatin1Char('\f'), Qt::SkipEmptyParts);
    ASSERT_GE(pages.size(), 1);
    for (const QString& page : pages)
        EXPECT_TRUE(page.contains("VELTRANO Labs")) << page.toStdString();
    EXPECT_TRUE(single.out.contains("Report: "));

    // The human table: a header, one line per photo with its path as given, the summary.
    const QStringList out = lines(single.out);
    ASSERT_GE(out.size(), 1 + 5 + 5);
    EXPECT_TRUE(out.at(0).startsWith("class"));
    for (int i = 0; i < 5; ++i)
    {
        const QString& line = out.at(1 + i);
        EXPECT_TRUE(line.endsWith("  " + s_questioned.at(i))) << line.toStdString();
        EXPECT_EQ(line.startsWith("not found"), !sameCamera(i)) << line.toStdString();
        EXPECT_TRUE(line.contains(QRegularExpression("\\s0\\.\\d{6}\\s+-?\\d+\\.\\d\\s")))
            << "probability and PCE: " << line.toStdString();
    }
    EXPECT_TRUE(single.out.contains(
        QRegularExpression("\\nPhotos analyzed: 5/5\\nFingerprints found: 3\\n"
                           "Fingerprints not found: 2\\n(.*\\n)*Time elapsed: \\d+\\.\\d\\d s\\n"
                           "Average time per image: \\d+\\.\\d\\d s\\n")))
        << single.out.toStdString();

    const QString csvText = readText(path("results.csv"));
    const QStringList rawLines = lines(csvText);
    ASSERT_EQ(rawLines.size(), 6);
    EXPECT_EQ(rawLines.at(0), JsonKeys.join(QLatin1Char(',')));
    // The folder's comma and quotes force quoting, with the quotes doubled.
    EXPECT_TRUE(rawLines.at(1).startsWith("\"" + s_dir->path())) << rawLines.at(1).toStdString();
    EXPECT_TRUE(rawLines.at(1).contains("questioned, \"\"mixed\"\"/a-1.jpg\","));
    const QList<QStringList> rows = parseCsv(csvText);
    ASSERT_EQ(rows.size(), 6);
    for (int i = 0; i < 5; ++i)
    {
        const QStringList& row = rows.at(i + 1);
        const QJsonObject& o = objects.at(i);
        ASSERT_EQ(row.size(), 15) << rawLines.at(i + 1).toStdString();
        const QString sha256 =
            QCryptographicHash::hash(readBytes(s_questioned.at(i)), QCryptographicHash::Sha256).toHex();
        // Every photo here was compared; each column as the JSON has it, the numbers as numbers.
        EXPECT_EQ(row.mid(0, 3), QStringList({QFileInfo(s_questioned.at(i)).absoluteFilePath(),
                                              sameCamera(i) ? "true" : "false", "true"}));
        EXPECT_EQ(row.mid(10, 3), QStringList({sha256, QString::number(i), "5"}));
        const QStringList text = fields(o, JsonKeys);
        for (int column = 0; column < row.size(); ++column)
        {
            if (column >= 3 && column <= 6)
                EXPECT_DOUBLE_EQ(row.at(column).toDouble(), text.at(column).toDouble()) << column;
            else
                EXPECT_EQ(row.at(column), text.at(column)) << column;
        }
    }
}

TEST_F(CliTest, FailingPhotosAreResultsInTheOrderGiven)
{
    const QStringList photos = args("@extra/relabelled.jpg @extra/broken.jpg $q0 @extra/larger.jpg");
    const SRun skipping =
        run(args("analyze -f $fp --skip-different-camera --json -") + photos + args("@extra/notes.txt"));
    ASSERT_EQ(skipping.exitCode, 0) << skipping.err.toStdString();
    EXPECT_TRUE(skipping.err.contains("notes.txt")) << "a file that is no photo is named and skipped";
    // Skipped by the camera rule or by size: not compared, never "not found";
    // a broken file is a failure and stays with the not-found photos. Each
    // failure says why, beyond its status text, without repeating the path.
    const QList<QJsonObject> objects = parseJsonLines(skipping.out);
    EXPECT_EQ(values(objects, "path"), photos);
    EXPECT_EQ(values(objects, "status"), QStringList({"inconsistentmetadata", "brokenimage", "success",
                                                      "imagefingerprintinconsistentsize"}));
    EXPECT_EQ(values(objects, "class"),
              QStringList({"not compared", "not found", "very high", "not compared"}));
    EXPECT_EQ(values(objects, "compared"), QStringList({"false", "false", "true", "false"}));
    EXPECT_EQ(values(objects, "matched"), QStringList({"false", "false", "true", "false"}));
    ASSERT_EQ(objects.size(), 4);
    for (const int i : {0, 1, 3})
    {
        const QString reason = objects.at(i)["reason"].toString();
        EXPECT_FALSE(reason.isEmpty() || reason.contains(photos.at(i))) << reason.toStdString();
    }
    EXPECT_TRUE(objects.at(2)["reason"].toString().isEmpty());
    EXPECT_EQ(objects.at(3)["reason"].toString(),
              "the photo's size fits the fingerprint at no orientation and scale tried");
    EXPECT_EQ(objects.at(3)["pce"].toDouble(), 0.0);
    EXPECT_TRUE(skipping.err.contains("Fingerprints not found: 1\nNot compared: 2\n"))
        << skipping.err.toStdString();

    // Without the camera rule the relabelled photo is matched: it is A's.
    const SRun matching =
        run(args("analyze -f $fp --csv @failing.csv @extra/relabelled.jpg @extra/broken.jpg "
                 "@extra/larger.jpg"));
    ASSERT_EQ(matching.exitCode, 0);
    const QStringList out = lines(matching.out);
    ASSERT_GE(out.size(), 4);
    EXPECT_TRUE(out.at(1).contains(QRegularExpression("^(very high|high|medium|low) ")))
        << out.at(1).toStdString();
    EXPECT_TRUE(out.at(2).startsWith("not found"));
    EXPECT_TRUE(out.at(2).contains("broken.jpg  (File cannot be opened: JPEG")) << out.at(2).toStdString();
    EXPECT_EQ(out.at(3),
              "not compared            -          -  " + photos.at(3) +
                  "  Not compared: Size is incompatible with fingerprint (the photo's size fits the "
                  "fingerprint at no orientation and scale tried)");
    EXPECT_TRUE(matching.out.contains("Fingerprints not found: 1\nNot compared: 1\n"));
    const QList<QStringList> rows = parseCsv(readText(path("failing.csv")));
    ASSERT_EQ(rows.size(), 4);
    EXPECT_EQ(rows.at(3).mid(1, 2), QStringList({"false", "false"}));
    EXPECT_EQ(rows.at(3).mid(7, 2), QStringList({"imagefingerprintinconsistentsize", "not compared"}));
}

// Usage errors exit with 1 (one line, pointing at --help), missing or unreadable
// inputs with 2 (one line naming them); neither writes results or touches evidence.
TEST_F(CliTest, RefusalsExitWithOneOrTwoAndOneLine)
{
    QFile::remove(path("photo-link.csv"));
    ASSERT_TRUE(QFile::link(s_questioned.at(0), path("photo-link.csv")));
    QByteArray noise; // not a fingerprint file at all
    for (int i = 0; i < 4096; ++i)
        noise.append(static_cast<char>((i * 7919 + 13) % 251));
    writeBytes(path("garbage.fnp"), noise);
    // A proper file with one bit flipped, and one cut short: refused on reading, by info too.
    QByteArray bytes = readBytes(s_fingerprint);
    ASSERT_GT(bytes.size(), 1000);
    writeBytes(path("cut.fnp"), bytes.left(bytes.size() / 16));
    bytes[bytes.size() - 100] = static_cast<char>(bytes.at(bytes.size() - 100) ^ 0x10);
    writeBytes(path("damaged.fnp"), bytes);
    ASSERT_EQ(QProcess::execute("mkfifo", {path("fifo.fnp")}), 0);
    const QStringList evidence = args("$fp $q0 $r0 @extra/notes.txt");
    QList<QByteArray> before;
    for (const QString& file : evidence)
        before.append(readBytes(file));
    const auto check = [&](int exitCode, const char* arguments, const QStringList& named)
    {
        SCOPED_TRACE(arguments);
        const SRun result = run(args(arguments));
        EXPECT_TRUE(result.normalExit);
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_TRUE(result.out.isEmpty()) << result.out.toStdString();
        EXPECT_EQ(lines(result.err).size(), 1) << result.err.toStdString();
        for (const QString& word : named) // through arg()
            EXPECT_TRUE(result.err.contains(arg(word))) << result.err.toStdString();
    };
    const char* const usageErrors[] = {
        "", "frobnicate", "--frobnicate", "learn -o", "learn -o @x.fnp", "learn @refs",
        "learn -o @x.fnp --bogus @refs", "learn -o @x.fnp --limit 0 @refs",
        "learn -o @x.fnp --limit 201 @refs", "learn -o @x.fnp --scale-search off @refs", "analyze $qdir",
        "analyze -f $fp", "analyze -f $fp --threads 0 @refs", "analyze -f $fp --threads many @refs",
        "analyze -f $fp --json @refs", "analyze -f $fp -o @y @refs",
        "analyze -f $fp --scale-search Full @refs", "identify $qdir", "identify --library @refs",
        "identify --library @refs -f $fp @refs", "info", "info $fp $fp", "info --json=yes $fp", "demo @refs",
        "validate", "validate @refs @refs", "validate --json - @refs", "validate --threads 0 @refs",
        "validate --scale-search= @refs",
        // Outputs that would destroy evidence or replace a device.
        "analyze -f $fp --csv $q0 $q0 $q1", "analyze -f $fp --json $fp $qdir",
        "analyze -f $fp --csv @photo-link.csv $qdir", "analyze -f $fp --report /dev/full $qdir",
        "analyze -f $fp --csv @o.csv --json @./o.csv $qdir",
        "analyze -f $fp --json @o.csv --csv @o.csv $qdir", "learn -o $r0 @refs", "learn -o /dev/null @refs",
        "learn -o @extra/notes.txt @refs",
        // Existing files that are not an earlier output of that kind, inputs of this run or not.
        "analyze -f $fp --csv $q0 $q1", "analyze -f $fp --json $r0 $q1",
        "analyze -f $fp --report @extra/notes.txt $q1",
        // Shards: K from 1 to N, both whole numbers.
        "analyze -f $fp --shard 0/3 @refs", "analyze -f $fp --shard 4/3 @refs",
        "analyze -f $fp --shard=1/0 @refs", "analyze -f $fp --shard x/y @refs",
        "analyze -f $fp --shard 2 @refs", "analyze -f $fp --shard 1/2/3 @refs",
        "analyze -f $fp @refs --shard", "merge", "merge --shard 1/2 @extra/notes.txt",
        "merge --json @o.csv --csv @o.csv @extra/notes.txt", "merge --csv @extra/notes.txt @extra/notes.txt"};
    for (const char* arguments : usageErrors)
        check(1, arguments, {"--help"});
    const struct
    {
        const char* arguments;
        QStringList named;
    } failures[] = {
        // Missing inputs, checked before any work; a set with no DEVICE/reference/ and DEVICE/questioned/.
        {"learn -o @m.fnp @no-such-folder", {"@no-such-folder"}},
        {"learn -o @no/such/dir/m.fnp @refs", {"@no/such/dir/m.fnp"}},
        {"analyze -f @missing.fnp $qdir", {"@missing.fnp"}},
        {"analyze -f $fp $q0 @no-such-folder", {"@no-such-folder"}},
        {"analyze -f $fp @empty", {"no photos"}},
        {"analyze -f $fp --csv @no/such/dir/out.csv $qdir", {"@no/such/dir/out.csv"}},
        {"validate @no-such-folder", {"@no-such-folder"}},
        {"validate @empty", {"@empty"}},
        {"validate $fp", {"$fp"}},
        // Fingerprints that cannot be read; no photo is reported as judged.
        {"analyze -f @garbage.fnp $qdir", {"@garbage.fnp", "Unsupported version of fingerprint"}},
        {"info @garbage.fnp", {"@garbage.fnp", "Unsupported version of fingerprint"}},
        {"analyze -f @damaged.fnp --json - $qdir", {"@damaged.fnp", "Fingerprint file is broken"}},
        {"info @damaged.fnp", {"@damaged.fnp", "Fingerprint file is broken"}},
        {"info @cut.fnp", {"@cut.fnp", "Fingerprint file is broken"}},
        {"info @fifo.fnp", {"@fifo.fnp", "Unable to open fingerprint"}},
        {"info /dev/zero", {"/dev/zero", "Unable to open fingerprint"}},
        // A library without a usable fingerprint, as an unreadable fingerprint for analyze.
        {"identify --library @empty $q0", {"@empty"}},
        {"identify --library @no-such-library $q0", {"@no-such-library"}},
    };
    for (const auto& c : failures)
        check(2, c.arguments, c.named);
    EXPECT_FALSE(QFile::exists(path("x.fnp")) || QFile::exists(path("o.csv")) ||
                 QFile::exists(path("m.fnp")));
    for (int i = 0; i < evidence.size(); ++i)
        EXPECT_EQ(readBytes(evidence.at(i)), before.at(i)) << evidence.at(i).toStdString();
    EXPECT_TRUE(QFileInfo::exists("/dev/full") && !QFileInfo("/dev/full").isFile());
    // An earlier output of its own kind is replaced.
    const QStringList again = args("analyze -f $fp --csv @a.csv --json @a.jsonl $q1");
    ASSERT_EQ(run(again).exitCode, 0);
    EXPECT_EQ(run(again).exitCode, 0);
}

TEST_F(CliTest, LearningNeedsThreeUsablePhotos)
{
    SRun result = run(args("learn -o @two.fnp $r0 $r1"));
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(lines(result.err).size(), 1) << result.err.toStdString();
    EXPECT_TRUE(result.err.contains("Not enough images") && result.err.contains("at least 3"));
    EXPECT_FALSE(QFile::exists(path("two.fnp")));

    // Three photos, one of them twice (once through another spelling): refused, naming both.
    result = run(args("learn -o @two.fnp $r0 $r1 @refs/../refs/ref-1.jpg"));
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains(s_references.at(0) + " and " + path("refs/../refs/ref-1.jpg")))
        << result.err.toStdString();
    EXPECT_FALSE(QFile::exists(path("two.fnp")));

    // The engine refuses a photo below its size limit; the tool names it.
    camsim::CameraConfig small = unit(1);
    small.width = 640;
    small.height = 480;
    shoot(camsim::Camera(small), camsim::SceneKind::Gradient, 50, path("extra/tiny.jpg"));
    result = run(args("learn -o @refused.fnp $r0 $r1 $r2 @extra/tiny.jpg"));
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.out.contains("photo 3/4") && !result.out.contains("photo 4/4"))
        << result.out.toStdString();
    EXPECT_TRUE(result.err.contains("4/4 " + path("extra/tiny.jpg"))) << result.err.toStdString();
    EXPECT_TRUE(result.err.contains("Photo has too small resolution"));
    EXPECT_FALSE(QFile::exists(path("refused.fnp")));

    // Out of memory is the computer's fault, not the first photo's.
    result = run(args("learn -o @refused.fnp $r0 $r1 $r2"), {"LUMICREST_MEMORY_BUDGET_MB", "1"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains("ran out of memory for learning")) << result.err.toStdString();
    EXPECT_FALSE(result.err.contains("refused photo"));
    EXPECT_FALSE(QFile::exists(path("refused.fnp")));
}

TEST_F(CliTest, LimitCapsTheReferencePhotos)
{
    const SRun result = run(args("learn --limit 3 -o @limited.fnp @refs"));
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_TRUE(result.out.contains("photo 3/3") && !result.out.contains("ref-4.jpg"))
        << result.out.toStdString();
    EXPECT_FALSE(result.err.contains("warning")) << "no warning with --limit";
    const SRun info = run(args("info --json @limited.fnp"));
    EXPECT_EQ(QJsonDocument::fromJson(info.out.toUtf8()).object()["trainingimagescount"].toInt(), 3);
}

TEST_F(CliTest, RecursiveTakesSubfoldersInSortedOrder)
{
    const SRun flat = run(args("analyze -f $fp --json - @nested"));
    ASSERT_EQ(flat.exitCode, 0) << flat.err.toStdString();
    EXPECT_EQ(values(parseJsonLines(flat.out), "path"), args("@nested/top.jpg"));

    const SRun deep = run(args("analyze -f $fp --recursive --json - @nested"));
    ASSERT_EQ(deep.exitCode, 0) << deep.err.toStdString();
    const QList<QJsonObject> all = parseJsonLines(deep.out);
    EXPECT_EQ(values(all, "path"), args("@nested/inner/a.jpg @nested/inner/b.JPG @nested/top.jpg"));
    EXPECT_EQ(values(all, "matched"), QStringList({"true", "false", "true"}));
}

TEST_F(CliTest, MoreThanTwoHundredPhotosAreCutWithAWarning)
{
    // Files that only look like photos: the engine refuses the first, which
    // is enough to see how many were passed on.
    ASSERT_TRUE(QDir().mkpath(path("many")));
    for (int i = 0; i < 201; ++i)
        writeBytes(path(QStringLiteral("many/p%1.jpg").arg(i, 3, 10, QLatin1Char('0'))),
                   "not photo " + QByteArray::number(i)); // distinct, or they would be copies

    SRun result = run(args("learn -o @many.fnp @many"));
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.contains("warning: Too many images: 201 found, only the first 200"))
        << result.err.toStdString();
    EXPECT_TRUE(result.err.contains("photo 1/200 " + path("many/p000.jpg")));
    EXPECT_TRUE(result.err.contains("Photo format is not supported")) << "the engine's reason";

    result = run(args("learn --limit 5 -o @many.fnp @many"));
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_FALSE(result.err.contains("Too many images"));
    EXPECT_TRUE(result.err.contains("photo 1/5 ")) << result.err.toStdString();
}

TEST_F(CliTest, PlainProgressIsPeriodicNotPerPhoto)
{
    QStringList arguments = args("analyze -f $fp --csv @progress.csv");
    for (int i = 0; i < 8; ++i)
        arguments.append(s_questionedFolder);
    const SRun result = run(arguments);
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    int progressLines = 0;
    for (const QString& line : lines(result.err))
    {
        if (!line.startsWith("Analyzed "))
            continue;
        ++progressLines;
        EXPECT_TRUE(line.contains(QRegularExpression(
            "^Analyzed \\d+/40 photos \\(\\d+%\\)  \\d+\\.\\d photos/s  remaining \\d+h \\d+m \\d\\ds$")))
            << line.toStdString();
    }
    const double seconds = result.out.section("Time elapsed: ", 1).section(QLatin1Char(' '), 0, 0).toDouble();
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
    const int copies = 10;
    QStringList arguments = args("analyze -f $fp --threads 1 --json - --csv @interrupted.csv");
    for (int i = 0; i < copies; ++i)
        arguments.append(s_questionedFolder);
    for (const int signal : {SIGINT, SIGTERM})
    {
        SCOPED_TRACE(signal);
        const std::unique_ptr<QProcess> process = start(arguments);
        // The first result line means the analysis runs with the signals caught.
        QByteArray out = readUntil(*process, QProcess::StandardOutput, "\n");
        ASSERT_TRUE(out.contains('\n'));
        stop(*process, signal);
        out += process->readAllStandardOutput();
        const QString err = QString::fromUtf8(process->readAllStandardError());
        EXPECT_TRUE(err.contains("interrupted"));
        const QList<QJsonObject> objects = parseJsonLines(QString::fromUtf8(out));
        ASSERT_EQ(objects.size(), copies * 5) << "every photo has its line";
        EXPECT_EQ(parseCsv(readText(path("interrupted.csv"))).size(), 1 + copies * 5) << "and its CSV row";
        int finished = 0;
        for (int i = 0; i < objects.size(); ++i)
        {
            const QJsonObject& o = objects.at(i);
            if (o["class"].toString() == "not processed")
            {
                EXPECT_EQ(QStringList({o["status"].toString(), o["reason"].toString()}),
                          QStringList({"invalid", "the analysis was interrupted"}));
                continue;
            }
            // One thread takes photos in order: the finished ones come first.
            EXPECT_EQ(finished++, i) << "finished photo after an unfinished one";
            EXPECT_EQ(o["status"].toString(), "success");
            EXPECT_EQ(o["matched"].toBool(), sameCamera(i));
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
    // A pipe, a link to it, a link to nothing, a name that is not UTF-8, and folders
    // nested beyond the system's path limit (made one level at a time).
    const QString folder = path("odd");
    ASSERT_TRUE(QDir().mkpath(folder));
    ASSERT_EQ(QProcess::execute(
                  "sh", {"-c",
                         "cd \"$0\" && cp \"$1\" good.jpg && cp \"$1\" \"$(printf 'caf\\351.jpg')\" && "
                         "mkfifo pipe.jpg && ln -s pipe.jpg to-pipe.jpg && ln -s nothing gone.jpg && "
                         "for i in $(seq 18); do mkdir $2 && cd -P $2 || exit 1; done && cp \"$1\" deep.jpg",
                         folder, s_questioned.at(0), QString(250, QLatin1Char('d'))}),
              0);
    const SRun result = run(args("analyze -f $fp -r --json - --csv @odd.csv @odd @odd/pipe.jpg"));
    QProcess::execute("rm", {"-rf", folder}); // too deep for QDir
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
        const QString reason = o["reason"].toString();
        SCOPED_TRACE(o["path"].toString().toStdString());
        EXPECT_TRUE(o["path"].toString().endsWith(QLatin1String(expected[i].name)));
        EXPECT_TRUE(reason.contains(QLatin1String(expected[i].reason))) << reason.toStdString();
        EXPECT_EQ(o["class"].toString() == "not processed", i > 0);
        EXPECT_EQ(reason.isEmpty(), i == 0);
    }
    EXPECT_EQ(result.err.count("cannot analyze"), 6) << "each named on standard error too";
    EXPECT_TRUE(result.err.contains("Photos analyzed: 1/7"));
    EXPECT_EQ(parseCsv(readText(path("odd.csv"))).size(), 1 + 7);

    // A name that is not valid UTF-8 given as an argument cannot be carried: refused, not "missing".
    const SRun shell = run(
        {"-c", "exec \"$0\" analyze -f \"$1\" \"$(printf 'caf\\351.jpg')\"", QUORVEX_CLI_PATH, s_fingerprint},
        {}, "sh");
    EXPECT_EQ(shell.exitCode, 1);
    EXPECT_TRUE(shell.err.contains("not valid UTF-8 (caf\\xe9.jpg)")) << shell.err.toStdString();
}

// A reader that has gone costs only standard output: the CSV is whole, and
// the run ends with an error that says why instead of dying of SIGPIPE.
TEST_F(CliTest, AClosedStandardOutputLeavesTheOtherOutputsWhole)
{
    // The child's standard output becomes a pipe whose reader is gone before the first line.
    struct CClosedReader : QProcess
    {
        int fd = -1;
        void setupChildProcess() override { ::dup2(fd, 1); }
    } process;
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[0]);
    process.fd = fds[1];
    process.setProcessEnvironment(environment());
    process.start(QUORVEX_CLI_PATH, args("analyze -f $fp --json - --csv @piped.csv $qdir $qdir $qdir"));
    const bool finished = process.waitForFinished(300000);
    ::close(fds[1]);
    ASSERT_TRUE(finished);
    const QString err = process.readAllStandardError();
    ASSERT_EQ(process.exitStatus(), QProcess::NormalExit) << "not death by SIGPIPE: " << err.toStdString();
    EXPECT_EQ(process.exitCode(), 2) << err.toStdString();
    EXPECT_TRUE(err.contains("cannot write to standard output") && err.contains("Photos analyzed: 15/15"))
        << err.toStdString();
    EXPECT_EQ(parseCsv(readText(path("piped.csv"))).size(), 1 + 15);
}
#endif

// Three shards merged give the whole run's table, JSON and CSV; merge
// refuses what is not one whole run and never writes a shorter table.
TEST_F(CliTest, ShardsMergeIntoTheWholeRun)
{
    // Relative paths, as the merged table shows photos below the working folder.
    const QStringList photos = {QFileInfo(s_questionedFolder).fileName(), "extra/broken.jpg",
                                "extra/larger.jpg", "extra/relabelled.jpg"};
    QFile::remove(path("shard-camera.fnp"));
    ASSERT_TRUE(QFile::copy(s_fingerprint, path("shard-camera.fnp")));
    const auto analyze =
        [&](const QString& options, const QString& name, const QString& fp = "@shard-camera.fnp")
    {
        const SRun result = run(args("analyze -f " + fp + " --json @" + name + ".jsonl " + options) + photos);
        EXPECT_EQ(result.exitCode, 0) << name.toStdString() << result.err.toStdString();
        return result;
    };
    const SRun whole = analyze("--csv @whole.csv", "whole");
    for (const char* shard : {"1/3", "2/3", "3/3", "9/9"})
    {
        const SRun part = analyze(QStringLiteral("--shard ") + shard, QStringLiteral("shard-") + shard[0]);
        const int count = shard[0] == '9' ? 0 : shard[0] == '3' ? 2 : 3;
        EXPECT_TRUE(part.out.contains(QStringLiteral("Photos analyzed: %1/%1\n").arg(count))) << shard;
    }
    EXPECT_TRUE(readBytes(path("shard-9.jsonl")).isEmpty()) << "8 photos: shard 9/9 is empty";
    // Shard 2 again, skipping the relabelled photo (index 7): another result for one position.
    analyze("--shard 2/3 --skip-different-camera", "shard-2-skip");
    // Shard 1 against the same fingerprint at another path, and a run of another list.
    analyze("--shard 1/3", "shard-other", "$fp");
    ASSERT_EQ(run(args("analyze -f @shard-camera.fnp --json @shard-short.jsonl") + photos.mid(0, 1)).exitCode,
              0);
    writeBytes(path("shard-bad.jsonl"),
               readBytes(path("shard-1.jsonl")).split('\n').first() + "\n{\"path\":\n");
    writeBytes(path("shard-long.jsonl"), QByteArray(3 << 20, 'x'));
    writeBytes(path("shard-identify.jsonl"),
               "{\"path\":\"/p.jpg\",\"matches\":[],\"compared\":0,\"best\":null,\"index\":1,\"total\":8}\n");

    const struct
    {
        const char* shards;
        int exitCode;
        const char* error;
    } cases[] = {
        {"3 1 9 2 1", 0, ""}, // any order, a shard twice
        {"1 3", 2, "3 of the run's 8 photos are in none of the files (index 1, 4, 7)"},
        {"1 2 3 2-skip", 2, "give different results for index 7"},
        {"other 2 3", 2, "merge the shards of one run"},
        {"1 short", 2, "a run of 5 photos"},
        {"2 3 bad", 2, "shard-bad.jsonl line 2: not a JSON object"},
        {"long", 2, "shard-long.jsonl line 1: the line is too long"},
        {"1 identify", 2, "shard-identify.jsonl line 1: an 'identify' result among 'analyze'"},
        {"9", 2, "no result lines"},
        {"1 gone", 2, "no such file"},
        {nullptr, 1, "would overwrite the input"},
    };
    for (const auto& c : cases)
    {
        QStringList arguments =
            args(c.shards ? "merge --json @merged.jsonl --csv @merged.csv"
                          : "merge --csv @shard-3.jsonl @shard-1.jsonl @shard-2.jsonl @shard-3.jsonl");
        for (const QString& name : QString::fromLatin1(c.shards).split(QLatin1Char(' '), Qt::SkipEmptyParts))
            arguments.append(path("shard-" + name + ".jsonl"));
        SCOPED_TRACE(arguments.join(QLatin1Char(' ')).toStdString());
        QFile::remove(path("merged.jsonl"));
        QFile::remove(path("merged.csv"));
        const SRun result = run(arguments);
        EXPECT_EQ(result.exitCode, c.exitCode) << result.err.toStdString();
        if (c.exitCode != 0)
        {
            EXPECT_TRUE(result.err.contains(QLatin1String(c.error))) << result.err.toStdString();
            EXPECT_TRUE(result.out.isEmpty()) << "no shorter table";
            EXPECT_FALSE(QFile::exists(path("merged.jsonl")) || QFile::exists(path("merged.csv")));
            continue;
        }
        EXPECT_EQ(readBytes(path("merged.jsonl")), readBytes(path("whole.jsonl")));
        EXPECT_EQ(readBytes(path("merged.csv")), readBytes(path("whole.csv")));
        // The table and the counts; the time is not in the lines.
        EXPECT_EQ(lines(result.out).mid(0, 1 + 8 + 4), lines(whole.out).mid(0, 1 + 8 + 4));
        EXPECT_FALSE(result.out.contains("Time elapsed"));
    }

    // The report needs the fingerprint the lines name: gone, no report.
    QFile::remove(path("merged.pdf"));
    const QStringList withReport =
        args("merge --report @merged.pdf @shard-1.jsonl @shard-2.jsonl @shard-3.jsonl");
    const SRun reported = run(withReport);
    EXPECT_EQ(reported.exitCode, 0) << reported.err.toStdString();
    EXPECT_TRUE(readBytes(path("merged.pdf")).startsWith("%PDF-"));
    QFile::remove(path("merged.pdf"));
    ASSERT_TRUE(QFile::remove(path("shard-camera.fnp")));
    const SRun noFingerprint = run(withReport);
    EXPECT_EQ(noFingerprint.exitCode, 2);
    EXPECT_TRUE(noFingerprint.err.contains(path("shard-camera.fnp"))) << noFingerprint.err.toStdString();
    EXPECT_FALSE(QFile::exists(path("merged.pdf")));
}

TEST_F(CliTest, HelpExplainsEveryCommandAndOption)
{
    const SRun help = run({"--help"});
    ASSERT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.err.isEmpty());
    for (const QString& word :
         args("learn analyze merge identify info demo validate -o --output --recursive --limit "
              "-f --fingerprint --skip-different-camera --threads --json --csv --report --case "
              "--examiner --notes --shard --library --out --variants --scale-search --help "
              "--version"))
        EXPECT_TRUE(help.out.contains(word)) << word.toStdString();
    EXPECT_EQ(run({"analyze", "--help"}).out, help.out);

    const SRun version = run({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, "quorvex-cli 2.0.0\n");
}

// A library of four cameras (A and B of one make and model, C of another,
// and a damaged file) and photos of A, B, a camera outside the library and a
// larger sensor.
TEST_F(CliTest, IdentifyNamesTheCameraOfEachPhoto)
{
    const QString library = path("library");
    ASSERT_TRUE(QDir().mkpath(library + "/sub"));
    ASSERT_TRUE(QFile::copy(s_fingerprint, path("library/camera-a.fnp")));
    camsim::CameraConfig otherModel = unit(3);
    otherModel.model = "QX-7";
    const struct
    {
        camsim::CameraConfig camera;
        const char* fingerprint;
    } learned[] = {{unit(2), "sub/camera-b.fnp"}, {otherModel, "camera-c.fnp"}};
    for (const auto& camera : learned)
    {
        const QString refs = path("refs-" + QFileInfo(camera.fingerprint).fileName());
        ASSERT_TRUE(QDir().mkpath(refs));
        for (int i = 0; i < 3; ++i)
            shoot(camsim::Camera(camera.camera), camsim::SceneKind::Natural, 70 + static_cast<uint64_t>(i),
                  refs + QStringLiteral("/r%1.jpg").arg(i));
        ASSERT_EQ(run({"learn", "-o", path("library/") + camera.fingerprint, refs}).exitCode, 0);
    }
    writeBytes(path("library/sub/damaged.fnp"), readBytes(s_fingerprint).left(4000));
    shoot(camsim::Camera(unit(4)), camsim::SceneKind::Natural, 31, path("stranger.jpg"));

    const QString a = path("library/camera-a.fnp");
    const struct
    {
        QString photo;
        QString camera; // empty: none matches
        QString status;
        int compared;
        QString table;
    } expected[] = {
        {s_questioned.at(0), a, "success", 3, ": camera-a.fnp ("},
        {s_questioned.at(3), path("library/sub/camera-b.fnp"), "success", 3, ": camera-b.fnp ("},
        {path("stranger.jpg"), "", "success", 3, ": no camera in the library"},
        {path("extra/larger.jpg"), "", "imagefingerprintinconsistentsize", 0, ": not compared: "},
    };
    QStringList photos;
    for (const auto& photo : expected)
        photos << photo.photo;
    const SRun json = run(args("identify --library @library --json -") + photos);
    ASSERT_EQ(json.exitCode, 0) << json.err.toStdString();
    EXPECT_TRUE(json.err.contains("damaged.fnp")) << "named, not dropped: " << json.err.toStdString();
    const QStringList jsonLines = lines(json.out);
    ASSERT_EQ(jsonLines.size(), 4) << json.out.toStdString();
    // A copy of A with one bit of its data flipped but a digest that vouches for
    // it: the damage shows only when it is loaded, and must still be named.
    QByteArray flipped = readBytes(a);
    flipped[flipped.size() / 2] = static_cast<char>(flipped.at(flipped.size() / 2) ^ 0x10);
    writeBytes(path("library/flipped.fnp"), flipped);
    ASSERT_TRUE(QFile::copy(a + ".digest", path("library/flipped.fnp.digest")));
    const SRun tableRun = run(args("identify --library @library") + photos);
    EXPECT_TRUE(tableRun.err.contains("flipped.fnp is damaged")) << tableRun.err.toStdString();
    const QStringList table = lines(tableRun.out);
    ASSERT_GT(table.size(), 4);
    for (int i = 0; i < 4; ++i)
    {
        const auto& want = expected[i];
        SCOPED_TRACE(want.photo.toStdString());
        const QJsonObject o =
            objectWithKeys(jsonLines.at(i), {"path", "sha256", "compared", "matches", "status", "reason",
                                             "best", "index", "total", "library"});
        EXPECT_EQ(fields(o, {"path", "index", "total", "library", "status", "compared"}),
                  QStringList({QFileInfo(want.photo).absoluteFilePath(), QString::number(i), "4", library,
                               want.status, QString::number(want.compared)}));
        EXPECT_EQ(o["sha256"].toString().size(), 64);
        const QJsonArray matches = o["matches"].toArray();
        ASSERT_EQ(matches.size(), want.camera.isEmpty() ? 0 : 1) << jsonLines.at(i).toStdString();
        if (!want.camera.isEmpty())
        {
            const QJsonObject match = matches.at(0).toObject();
            EXPECT_EQ(match["fingerprint"].toString(), want.camera);
            EXPECT_GE(match["pce"].toDouble(), 60.0);
            EXPECT_TRUE(MatchClasses.contains(match["class"].toString()));
            EXPECT_EQ(o["best"].toObject(), match) << "the strongest match is the best";
        }
        if (want.compared == 0)
        {
            EXPECT_TRUE(o["best"].isNull()) << "no nearest camera without a comparison";
        }
        EXPECT_TRUE(table.at(i + 1).startsWith(want.photo + want.table)) << table.at(i + 1).toStdString();
    }
    EXPECT_TRUE(tableRun.out.contains("Photos identified: 2\nNo camera in the library: 1\nNot compared: 1\n"))
        << tableRun.out.toStdString();

    // Two shards (with a file that cannot be analyzed) merge into the whole
    // run; shards of another library, or a report without the library, do not.
    photos.prepend("extra/broken.jpg");
    for (QString& photo : photos)
        photo = QDir(s_dir->path()).relativeFilePath(photo); // relative: as the merged table shows them
    ASSERT_TRUE(QDir().mkpath(path("library-other")));
    ASSERT_TRUE(QFile::copy(a, path("library-other/camera-a.fnp")));
    const auto identify = [&](const char* folder, const char* name, const char* options)
    {
        const SRun result = run(
            args(QStringLiteral("identify --library @%1 --json @%2.jsonl %3").arg(folder, name, options)) +
            photos);
        EXPECT_EQ(result.exitCode, 0) << name << result.err.toStdString();
        return result;
    };
    const SRun whole = identify("library", "id-whole", "--csv @id-whole.csv");
    identify("library", "id-1", "--shard 1/2");
    identify("library", "id-2", "--shard 2/2");
    identify("library-other", "id-other", "--shard 1/2");
    const QStringList merged = args("@id-merged.jsonl @id-merged.csv @id-merged.pdf");
    const auto merge = [&](const char* first)
    {
        for (const QString& file : merged)
            QFile::remove(file);
        return run(
            args(QStringLiteral("merge --json @id-merged.jsonl --csv @id-merged.csv --report @id-merged.pdf "
                                "@%1 @id-2.jsonl")
                     .arg(first)));
    };
    const SRun joined = merge("id-1.jsonl");
    EXPECT_EQ(joined.exitCode, 0) << joined.err.toStdString();
    EXPECT_EQ(readBytes(merged.at(0)), readBytes(path("id-whole.jsonl")));
    EXPECT_EQ(readBytes(merged.at(1)), readBytes(path("id-whole.csv")));
    EXPECT_TRUE(readBytes(merged.at(2)).startsWith("%PDF-"));
    // The table and the counts; the time is not in the lines.
    EXPECT_EQ(lines(joined.out).mid(0, 1 + 5 + 5), lines(whole.out).mid(0, 1 + 5 + 5));
    EXPECT_FALSE(joined.out.contains("Time elapsed"));
    for (const bool libraryGone : {false, true})
    {
        if (libraryGone)
        {
            ASSERT_TRUE(QDir().rename(library, path("library-gone")));
        }
        const SRun refused = merge(libraryGone ? "id-1.jsonl" : "id-other.jsonl");
        EXPECT_EQ(refused.exitCode, 2);
        EXPECT_TRUE(refused.err.contains(libraryGone ? library : "merge the shards of one run"))
            << refused.err.toStdString();
        EXPECT_TRUE(refused.out.isEmpty());
        for (const QString& file : merged)
            EXPECT_FALSE(QFile::exists(file)) << file.toStdString();
    }
    ASSERT_TRUE(QDir().rename(path("library-gone"), library));
}

TEST_F(CliTest, DemoClassifiesEveryPhotoRight)
{
    const QString out = path("demo");
    const SRun result = run({"demo", "--out", out});
    EXPECT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
    // The demo's photos score as real ones do: every class shows up. A photo of
    // camera A may score below the threshold ("missed": no claim is made), but
    // whatever matches is camera A's and nothing of B or C matches.
    QMap<QString, int> perClass;
    QMap<QString, int> perCamera;
    int rows = 0;
    for (const QString& line : lines(result.out))
    {
        if (!line.startsWith("photo-"))
            continue;
        ++rows;
        const bool cameraA = line.contains("camera A");
        EXPECT_TRUE(line.endsWith("right") || (cameraA && line.endsWith("missed"))) << line.toStdString();
        for (const QString& c : MatchClasses + QStringList{"not found"})
            if (line.contains(QRegularExpression(QStringLiteral("\\s{2}%1\\s+-?[0-9.]+\\s+\\w+$").arg(c))))
                ++perClass[c];
        for (const char* camera : {"camera B (same model)", "camera C"})
        {
            if (line.contains(QLatin1String(camera)))
            {
                ++perCamera[camera];
                EXPECT_TRUE(line.contains("not found")) << line.toStdString();
            }
        }
    }
    EXPECT_EQ(perClass.keys(), QStringList({"high", "low", "medium", "not found", "very high"}));
    EXPECT_EQ(rows, 14);
    EXPECT_EQ(perCamera, (QMap<QString, int>{{"camera B (same model)", 3}, {"camera C", 3}}));
    EXPECT_TRUE(result.out.contains("All 14 photos classified right") ||
                result.out.contains("No photo classified wrong"));
    EXPECT_EQ(QDir(out + "/questioned").entryList({"*.jpg"}).size(), 14);
    EXPECT_EQ(QDir(out + "/reference").entryList({"*.jpg"}).size(), 12);
    EXPECT_TRUE(QFileInfo(out + "/camera-a.fnp").isFile());
    EXPECT_TRUE(result.out.contains(out + "/questioned"));
    const QString report = pdfText(out + "/report.pdf");
    EXPECT_TRUE(report.contains("Quorvex Report"));
    EXPECT_EQ(report.count("Match: very high probability"), perClass.value("very high"));

    const SRun again = run({"demo", "--out", out});
    EXPECT_EQ(again.exitCode, 2) << "a folder that is not empty is left alone";
    EXPECT_TRUE(again.err.contains("not empty"));
}

// A study of two cameras from the photos above: a broken file and a photo of
// another size are counted as not compared, a device with too few reference
// photos is left out, and the copies that cannot be made (a crop larger than
// the photo) are not compared either.
TEST_F(CliTest, ValidateCountsEveryPairOnce)
{
    const QDir set(path("set"));
    for (const char* sub : {"cam-a/reference", "cam-a/questioned", "cam-b/reference", "cam-b/questioned",
                            "cam-c/reference", "cam-c/questioned", "not-a-device"})
        ASSERT_TRUE(set.mkpath(sub));
    const auto copy = [&](const QString& from, const QString& to)
    { ASSERT_TRUE(QFile::copy(from, set.filePath(to))); };
    for (int i = 0; i < s_references.size(); ++i)
        copy(s_references.at(i), QStringLiteral("cam-a/reference/r%1.jpg").arg(i));
    for (int i = 0; i < 5; ++i)
        copy(s_questioned.at(i), QStringLiteral("cam-%1/questioned/q%2.jpg").arg(i < 3 ? 'a' : 'b').arg(i));
    copy(path("extra/broken.jpg"), "cam-a/questioned/x.jpg");
    copy(s_references.at(0), "cam-c/reference/r.jpg");
    const camsim::Camera b(unit(2));
    for (int i = 0; i < 3; ++i)
        shoot(b, i == 0 ? camsim::SceneKind::Flat : camsim::SceneKind::Gradient,
              50 + static_cast<uint64_t>(i), set.filePath(QStringLiteral("cam-b/reference/r%1.jpg").arg(i)));
    shoot(camsim::Camera(larger()), camsim::SceneKind::Natural, 60, set.filePath("cam-b/questioned/z.jpg"));

    // An output that would replace a photo of the set is refused before anything runs.
    const QByteArray photo = readBytes(path("set/cam-a/questioned/q0.jpg"));
    EXPECT_EQ(run(args("validate --json @set/cam-a/questioned/q0.jpg @set")).exitCode, 1);
    EXPECT_EQ(readBytes(path("set/cam-a/questioned/q0.jpg")), photo);

    const SRun result = run(args("validate --variants --json @study.jsonl --report @study.pdf @set"));
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_TRUE(result.err.contains("cam-c cannot be learned and is left out: not enough"));
    EXPECT_TRUE(result.err.contains("not-a-device"));

    const QStringList variants = {"original",      "rotated-90", "exif-rotated", "crop-1600x1200",
                                  "crop-1024x768", "jpeg-75",    "scaled-80",    "scaled-50"};
    const QStringList pairs = lines(readText(path("study.jsonl")));
    ASSERT_EQ(pairs.size(), 2 * 7 * variants.size()) << "two fingerprints, seven photos, every variant";
    double weakestTrue = 1e300;
    double strongestFalse = -1e300;
    int trueCompared = 0;
    int falseCompared = 0;
    for (const QString& line : pairs)
    {
        SCOPED_TRACE(line.toStdString());
        const QJsonObject o = QJsonDocument::fromJson(line.toUtf8()).object();
        ASSERT_EQ(o.keys().size(), 9);
        const QString photoPath = o["photo"].toString();
        const int variant = variants.indexOf(o["variant"].toString());
        const bool truePair = o["true_pair"].toBool();
        ASSERT_GE(variant, 0);
        EXPECT_TRUE(QFileInfo(photoPath).isAbsolute() && QFile::exists(photoPath)) << "the original photo";
        EXPECT_EQ(truePair, photoPath.contains("/" + o["fingerprint"].toString() + "/"));
        const bool compared = o["status"].toString() == "success" && o["reason"].toString().isEmpty();
        // Not compared: the broken file, crops larger than the photo (q1 is portrait), and
        // the larger photo unless cropped or scaled down to fit inside the fingerprint.
        const QString name = QFileInfo(photoPath).fileName();
        EXPECT_EQ(compared, name != "x.jpg" && variant != 3 && !(name == "q1.jpg" && variant == 4) &&
                                (name != "z.jpg" || variant == 4 || variant == 7));
        EXPECT_TRUE(compared || !o["matched"].toBool());
        if (variant == 0 && compared)
        {
            EXPECT_EQ(o["matched"].toBool(), truePair);
            ++(truePair ? trueCompared : falseCompared);
            (truePair ? weakestTrue : strongestFalse) =
                truePair ? qMin(weakestTrue, o["pce"].toDouble()) : qMax(strongestFalse, o["pce"].toDouble());
        }
    }
    EXPECT_EQ(trueCompared, 5);
    EXPECT_EQ(falseCompared, 5);

    const QStringList out = lines(result.out);
    ASSERT_FALSE(out.isEmpty());
    EXPECT_EQ(out.last(),
              QStringLiteral("true pairs matched 5/5, false pairs matched 0/5, weakest true PCE %1, "
                             "strongest false PCE %2")
                  .arg(weakestTrue, 0, 'f', 1)
                  .arg(strongestFalse, 0, 'f', 1));
    for (const char* expected :
         {"cam-a        3/3 +1nc  0/2 +1nc", "cam-b        0/3 +1nc  2/2 +1nc",
          "Not compared: 2 true pairs, 2 false pairs", "AUC (a true pair scores above a false one): 1.0000",
          "cam-c: left out, learning failed: not enough reference photos"})
        EXPECT_TRUE(result.out.contains(QLatin1String(expected))) << expected << "\n"
                                                                  << result.out.toStdString();
    EXPECT_TRUE(result.out.contains(QRegularExpression("\\ncrop-1600x1200 +0/0 +7 +0/0 +7 +- +-\\n")));
    const QString report = pdfText(path("study.pdf"));
    EXPECT_TRUE(report.contains(out.last()) && report.contains("crop-1600x1200")) << report.toStdString();

#ifdef Q_OS_UNIX
    // Stopped while matching, the study leaves no fingerprint or copy behind.
    const QString temp = path("study-temp");
    ASSERT_TRUE(QDir().mkpath(temp));
    const std::unique_ptr<QProcess> process =
        start(args("validate --variants --threads 1 @set"), {"TMPDIR", temp});
    ASSERT_TRUE(readUntil(*process, QProcess::StandardError, "matching").contains("matching"));
    ASSERT_FALSE(QDir(temp).isEmpty()) << "the fingerprints are there while it runs";
    stop(*process, SIGTERM);
    EXPECT_TRUE(QDir(temp).entryList({"quorvex-*"}, QDir::AllEntries | QDir::Hidden).isEmpty());
#endif
}

// The pieces behind the outputs, directly.

TEST(CliFormat, CsvFieldsAreQuotedOnlyWhenNeeded)
{
    const QStringList plain[] = {{"/a/b.jpg", "/a/b.jpg"},
                                 {"/a,b/c.jpg", "\"/a,b/c.jpg\""},
                                 {"say \"x\"", "\"say \"\"x\"\"\""},
                                 {"two\nlines", "\"two\nlines\""}};
    for (const QStringList& c : plain)
        EXPECT_EQ(cli::csvField(c.at(0)), c.at(1));
}

TEST(CliFormat, OutcomesOfEveryKind)
{
    using qutils::CQuorvexAPI;
    cli::SPhotoOutcome outcome;
    outcome.path = "q/p.jpg";
    outcome.absolutePath = "/x/q/p.jpg";
    EXPECT_EQ(
        cli::jsonLine(outcome),
        "{\"path\":\"/x/q/p.jpg\",\"matched\":false,\"compared\":false,\"probability\":0,\"correlation\":0,"
        "\"pce\":0,\"scale\":1,\"status\":\"invalid\",\"class\":\"not processed\",\"reason\":\"\","
        "\"sha256\":null,\"index\":0,\"total\":0,\"fingerprint\":\"\",\"orientation\":0}");
    outcome.index = 3;
    outcome.total = 7;
    outcome.fingerprint = "/c/a,b.fnp";
    outcome.processed = true;
    outcome.result = {true, 0.995, 0.05, CQuorvexAPI::Success, 210.5};
    EXPECT_EQ(cli::className(outcome), "high");
    EXPECT_EQ(cli::csvLine(outcome),
              "/x/q/p.jpg,true,true,0.995,0.05,210.5,1,success,high,,,3,7,\"/c/a,b.fnp\",0");
    outcome.sha256 = "ba78";
    outcome.result.orientation = 270;
    EXPECT_TRUE(cli::jsonLine(outcome).endsWith(",\"reason\":\"\",\"sha256\":\"ba78\",\"index\":3,\"total\":"
                                                "7,\"fingerprint\":\"/c/a,b.fnp\",\"orientation\":270}"));
    EXPECT_TRUE(cli::csvLine(outcome).endsWith(",high,,ba78,3,7,\"/c/a,b.fnp\",270"));
    EXPECT_TRUE(cli::tableLine(outcome).startsWith("high ") &&
                cli::tableLine(outcome).endsWith("210.5  q/p.jpg"));
    const cli::SPhotoOutcome high = outcome;
    outcome.result.scale = 0.8;
    EXPECT_TRUE(cli::jsonLine(outcome).contains("\"pce\":210.5,\"scale\":0.8,"));
    EXPECT_TRUE(cli::tableLine(outcome).endsWith("210.5  q/p.jpg  (scale 0.80)"));
    // Not compared: no numbers, the reason in words, counted apart.
    cli::SPhotoOutcome notCompared = outcome;
    notCompared.result = {
        false, 0.0, 0.0, CQuorvexAPI::ImageFingerprintInconsistentSize, 0.0, "photo too small"};
    EXPECT_EQ(cli::csvLine(notCompared), "/x/q/p.jpg,false,false,0,0,0,1,imagefingerprintinconsistentsize,"
                                         "not compared,photo too small,ba78,3,7,\"/c/a,b.fnp\",0");
    EXPECT_EQ(cli::tableLine(notCompared),
              "not compared            -          -  q/p.jpg  Not compared: Size is "
              "incompatible with fingerprint (photo too small)");
    cli::SPhotoOutcome skipped = notCompared;
    skipped.result.status = CQuorvexAPI::InconsistentMetadata;
    skipped.result.reason = "EXIF: X";
    EXPECT_TRUE(cli::tableLine(skipped).endsWith("Not compared: Different camera type (EXIF: X)"));
    outcome.result = {false, 0.0, 0.0, CQuorvexAPI::BrokenImage, 0.0};
    EXPECT_EQ(cli::className(outcome), "not found");
    EXPECT_TRUE(cli::tableLine(outcome).endsWith("q/p.jpg  (File cannot be opened)"));
    cli::SPhotoOutcome refused;
    refused.path = "q/pipe.jpg";
    refused.reason = "not a regular file, say";
    EXPECT_TRUE(cli::tableLine(refused).endsWith("q/pipe.jpg  (not a regular file, say)"));
    EXPECT_TRUE(cli::csvLine(refused).endsWith(",not processed,\"not a regular file, say\",,0,0,,0"));

    // Every kind of line reads back into an outcome that writes it again.
    cli::SPhotoOutcome nan = outcome;
    nan.result = {false, std::nan(""), 0.0, CQuorvexAPI::Success, 3.0};
    refused.total = 7;
    refused.absolutePath = "/x/q/pipe%1.jpg";
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
              QStringList({"Photos analyzed: 3/4", "Fingerprints found: 0", "Fingerprints not found: 1",
                           "Not compared: 2", "Time elapsed: 6.00 s", "Average time per image: 2.00 s"}));
}
// The engine's answer about one photo, through the library's reading, to the
// verdict in the table, the JSON line and the CSV rows.
TEST(CliFormat, IdentificationsOfEveryKind)
{
    using qutils::CQuorvexAPI;
    const QStringList library = {"/l/a%1.fnp", "/l/b,c.fnp"};
    const QString entryB =
        QStringLiteral("{\"index\":1,\"sensor_matched\":1,\"probability\":0.996,\"corr\":0.1,"
                       "\"pce\":250,\"scale\":0.5,\"orientation\":90}");
    const QString entryA =
        QStringLiteral("{\"index\":0,\"sensor_matched\":1,\"probability\":0.9999,\"corr\":0.2,"
                       "\"pce\":900,\"scale\":1,\"orientation\":0}");
    const QString nearA = "{\"index\":0,\"sensor_matched\":0,\"probability\":0.3,\"pce\":7.5}";
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
         QStringLiteral(
             "{\"compared\":2,\"reason\":\"\",\"matches\":[%1,%2,{\"index\":2,\"sensor_matched\":1,"
             "\"pce\":5000}],\"best\":%2}")
             .arg(entryB, entryA),
         "a%1.fnp (very high, PCE 900.0), b,c.fnp (high, PCE 250.0)", CQuorvexAPI::Success, 2},
        {CQuorvexAPI::Success, QStringLiteral("{\"compared\":2,\"matches\":[],\"best\":%1}").arg(nearA),
         "no camera in the library (nearest a%1.fnp, PCE 7.5)", CQuorvexAPI::Success, 1},
        {CQuorvexAPI::Success, "{\"compared\":2,\"matches\":[],\"best\":null}", "no camera in the library",
         CQuorvexAPI::Success, 1},
        {CQuorvexAPI::Success, "{\"compared\":0,\"reason\":\"/q/p.jpg: size\",\"matches\":[]}",
         "not compared: the photo's size fits the fingerprint at no orientation and scale tried",
         CQuorvexAPI::ImageFingerprintInconsistentSize, 1},
        // Compared with nothing is never "no camera", even without a reason.
        {CQuorvexAPI::Success, QStringLiteral("{\"compared\":0,\"matches\":[],\"best\":%1}").arg(nearA),
         "not compared: no fingerprint of the library could be compared with it",
         CQuorvexAPI::ImageFingerprintInconsistentSize, 1},
        {CQuorvexAPI::BrokenImage,
         QStringLiteral("{\"reason\":\"/q/p.jpg: JPEG truncated\",\"matches\":[%1]}").arg(entryA),
         "failed: File cannot be opened (JPEG truncated)", CQuorvexAPI::BrokenImage, 1},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.answer.toStdString());
        cli::SIdentifiedPhoto photo;
        photo.outcome.path = "q/p.jpg";
        photo.outcome.absolutePath = "/q/p.jpg";
        photo.outcome.processed = true;
        photo.index = 3;
        photo.total = 9;
        photo.identification = CFingerprintLibrary::readAnswer(c.engineStatus, c.answer, "/q/p.jpg", library);
        EXPECT_EQ(photo.identification.status, c.status);
        EXPECT_EQ(cli::identifyTableLine(photo), "q/p.jpg: " + c.verdict);
        const QStringList rows = cli::identifyCsvRows(photo);
        EXPECT_EQ(rows.size(), c.csvRows);
        for (const QString& row : rows)
            EXPECT_TRUE(row.endsWith(",3,9")) << row.toStdString();
        const QJsonObject o = QJsonDocument::fromJson(cli::identifyJsonLine(photo).toUtf8()).object();
        EXPECT_EQ(o["matches"].toArray().size(), photo.identification.matches.size());
        if (c.status != CQuorvexAPI::Success)
        {
            EXPECT_TRUE(o["best"].isNull());
        }
        // Read back, the line tells the same story.
        cli::SIdentifiedPhoto read;
        QString error;
        ASSERT_TRUE(cli::readIdentifyJsonLine(cli::identifyJsonLine(photo).toUtf8(), &read, &error))
            << error.toStdString();
        EXPECT_EQ(cli::identifyTableLine(read), "/q/p.jpg: " + c.verdict);
        EXPECT_EQ(cli::identifyCsvRows(read), rows);
    }
    cli::SIdentifiedPhoto first;
    first.identification =
        CFingerprintLibrary::readAnswer(CQuorvexAPI::Success, cases[0].answer, QString(), library);
    first.outcome.processed = true;
    EXPECT_TRUE(cli::identifyJsonLine(first).contains(
        QStringLiteral("\"best\":{\"fingerprint\":\"/l/a%1.fnp\",\"pce\":900,\"probability\":0.9999,"
                       "\"class\":\"very high\",\"scale\":1,\"orientation\":0}")));
    EXPECT_EQ(cli::identifyCsvRows(first).at(1), ",,2,\"/l/b,c.fnp\",250,0.996,high,0.5,90,success,,0,0");

    // Never reached: no comparison, no camera, and counted apart.
    cli::SIdentifiedPhoto interrupted;
    interrupted.outcome.absolutePath = "/q/p.jpg";
    interrupted.outcome.reason = "the analysis was interrupted";
    interrupted.identification = first.identification;
    EXPECT_EQ(
        cli::identifyJsonLine(interrupted),
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
        {QByteArray(good).replace("\"status\":\"success\"", "\"status\":\"invalid\""),
         "as 'identify' writes it"},
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
              QStringList({"Photos identified: 1", "No camera in the library: 0", "Not compared: 0",
                           "Failed: 0", "Not processed: 1"}));
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
        {{3, 1}, {1, 0}, 0.875, 2, 1.2}, // one tie counts half
        {{5}, {5, 9}, 0.25, 5, 5},
        {{}, {1}, -1.0, 0, 0}, // nothing to compare
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
        p.fingerprintDevice = fp;
        p.photoDevice = device;
        p.photoPath = QStringLiteral("/s/%1/q.jpg").arg(device);
        p.variant = "original";
        p.processed = true;
        p.result = {matched, 0.9, 0.01, qutils::CQuorvexAPI::Success, pce, reason};
        return p;
    };
    QList<cli::SValidationPair> pairs = {pair("a", "a", 139.24, true, ""), pair("a", "a", 0, false, "size"),
                                         pair("a", "b", 4.56, false, ""), pair("b", "a", 70, true, ""),
                                         pair("b", "b", 55, false, "")};
    pairs.append(pairs.at(2));
    pairs.last().processed = false;
    EXPECT_EQ(cli::summaryLine(pairs), QStringLiteral("true pairs matched 1/2, false pairs matched 1/2, "
                                                      "weakest true PCE 55.0, strongest false PCE 70.0"));
    EXPECT_EQ(cli::confusionTable(pairs, {"a", "b"}, {"a", "b"}),
              QStringList({"fingerprint  a         b", "a            1/1 +1nc  0/1 +1nc",
                           "b            1/1       0/1"}));
    EXPECT_EQ(cli::validationJsonLine(pairs.at(1)),
              QStringLiteral("{\"fingerprint\":\"a\",\"photo\":\"/s/a/q.jpg\",\"variant\":\"original\","
                             "\"true_pair\":true,\"pce\":0,\"probability\":0.9,\"matched\":false,"
                             "\"status\":\"success\",\"reason\":\"size\"}"));
}

TEST(CliFormat, ProgressAndLearningLines)
{
    const cli::CProgressLine start("Analyzed", 10, false);
    EXPECT_EQ(start.text(false), "Analyzed 0/10 photos (0%)  - photos/s  remaining unknown");
    EXPECT_EQ(start.text(true), "[------------------------] 0/10  - photos/s  remaining unknown");
    // Numbers aligned to the total's width; a tiny NMSE in scientific notation.
    EXPECT_EQ(cli::CLearnJob::photoLine(3, 12, 0.0421f, "a/b.jpg"), "photo  3/12  NMSE 0.0421  a/b.jpg");
    EXPECT_EQ(cli::CLearnJob::photoLine(9, 9, 0.00042f, "x.jpg"), "photo 9/9  NMSE 4.20e-04  x.jpg");
}

TEST(CliCommandLine, ValuesAndOrder)
{
    const cli::SCommandLine c = cli::parseCommandLine(
        {"analyze", "b", "--threads=3", "-f", "k.fnp", "--case=2026/17", "--examiner", "A. Novak", "--notes",
         "seized, bag 4", "--json", "-", "--", "--odd-name.jpg", "a"});
    ASSERT_EQ(c.command, cli::ECommand::Analyze) << c.error.toStdString();
    EXPECT_EQ(QStringList({c.caseNumber, c.examiner, c.notes, c.fingerprintFile, c.jsonFile}),
              QStringList({"2026/17", "A. Novak", "seized, bag 4", "k.fnp", "-"}));
    EXPECT_EQ(c.threads, 3);
    EXPECT_EQ(c.paths, QStringList({"b", "--odd-name.jpg", "a"}));
    EXPECT_FALSE(cli::parseCommandLine({"validate", "--case=1", "s"}).error.isEmpty())
        << "the report's case fields belong to analyze";
    // The scale-search limit reaches the engine while the line is parsed, before any match.
    qunsetenv("LUMICREST_SCALE_SEARCH");
    EXPECT_TRUE(cli::parseCommandLine({"validate", "s"}).scaleSearch.isEmpty());
    EXPECT_FALSE(qEnvironmentVariableIsSet("LUMICREST_SCALE_SEARCH")) << "not given, not set";
    for (const char* value : {"sized", "off", "full"})
    {
        const cli::SCommandLine limited =
            cli::parseCommandLine({"analyze", "-f", "k.fnp", "--scale-search", value, "a"});
        ASSERT_EQ(limited.command, cli::ECommand::Analyze) << limited.error.toStdString();
        EXPECT_EQ(qgetenv("LUMICREST_SCALE_SEARCH"), QByteArray(value));
    }
    EXPECT_EQ(cli::parseCommandLine({"validate", "--scale-search=of", "s"}).error,
              "--scale-search needs full, sized or off, not 'of'");
    EXPECT_EQ(qgetenv("LUMICREST_SCALE_SEARCH"), QByteArray("full")) << "a refused line changes nothing";
    // An inherited value the engine would refuse is a usage error, unless the option overrides it.
    qputenv("LUMICREST_SCALE_SEARCH", "ful");
    EXPECT_EQ(cli::parseCommandLine({"validate", "s"}).error,
              "the environment's LUMICREST_SCALE_SEARCH needs full, sized or off, not 'ful'");
    EXPECT_TRUE(cli::parseCommandLine({"validate", "s", "--scale-search=off"}).error.isEmpty());
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
        {"1/1", 4, 1, {0, 1, 2, 3, 4}, 4},
        {"1/3", 7, 0, {0, 3, 6}, 3},
        {"3/3", 7, 0, {2, 5}, 2},
        {"2/2", 3, 2, {1, 3}, 1},
        {"3/3", 1, 2, {2}, 0},
        {"6/6", 5, 0, {}, 0},
        {"2/9", 1, 1, {1}, 0},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.shard);
        const cli::SCommandLine line =
            cli::parseCommandLine({"analyze", "-f", "k.fnp", "--shard", c.shard, "a"});
        ASSERT_EQ(line.command, cli::ECommand::Analyze) << line.error.toStdString();
        cli::SPhotoInputs inputs;
        for (int i = 0; i < c.photos; ++i)
            inputs.photos.append(QFileInfo(QStringLiteral("/p/%1.jpg").arg(i)));
        for (int i = c.photos; i < c.photos + c.refused; ++i)
            inputs.refused.append({QStringLiteral("/p/%1.jpg").arg(i), "not a regular file"});
        inputs.total = c.photos + c.refused;
        for (int i = 0; i < inputs.total; ++i)
            inputs.indexes.append(i);
        cli::keepShard(inputs, line.shardNumber, line.shardCount);
        EXPECT_EQ(inputs.indexes, c.kept);
        EXPECT_EQ(inputs.total, c.photos + c.refused) << "the whole list's length stays";
        ASSERT_EQ(inputs.photos.size(), c.keptPhotos);
        ASSERT_EQ(inputs.photos.size() + inputs.refused.size(), c.kept.size());
        for (int i = 0; i < c.kept.size(); ++i)
            EXPECT_EQ(i < c.keptPhotos ? inputs.photos.at(i).filePath()
                                       : inputs.refused.at(i - c.keptPhotos).path,
                      QStringLiteral("/p/%1.jpg").arg(c.kept.at(i)));
    }
}
