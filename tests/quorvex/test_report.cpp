// The report document, piece by piece, and the report task around it with a
// stand-in converter (the real converter has its own tests).
#include "generatortask.h"

#include "qutils/exception.h"
#include "qutils/htmltopdftask.h"
#include "qutils/tasks.h"

#include "logcapture.h"
#include "simcamera.h"
#include "testfiles.h"
#include "testutils.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QLocale>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QUrl>

#include <gtest/gtest.h>

using qutils::CQuorvexAPI;
using Result = CQuorvexAPI::SAnalysisResult;

namespace
{

class ReportTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_withExif = m_dir.filePath(QStringLiteral("camera/IMG 1.jpg"));
        QDir().mkpath(QFileInfo(m_withExif).absolutePath());
        testutils::shoot(camsim::Camera(testutils::simCamera(5, 640, 480)), 9, m_withExif);

        QImage plain(QSize(64, 48), QImage::Format_RGB32);
        plain.fill(Qt::darkCyan);
        m_withoutExif = m_dir.filePath(QStringLiteral("plain.png"));
        ASSERT_TRUE(plain.save(m_withoutExif));
        m_neverProcessed = m_dir.filePath(QStringLiteral("other/IMG 1.jpg"));
        QDir().mkpath(QFileInfo(m_neverProcessed).absolutePath());
        ASSERT_TRUE(QFile::copy(m_withExif, m_neverProcessed));

        m_input.photos = {QFileInfo(m_withExif), QFileInfo(m_withoutExif), QFileInfo(m_neverProcessed)};
        m_input.filterType = 0;
        m_input.fingerprintPath = m_dir.filePath(QStringLiteral("camera.fnp"));
        m_created = QDateTime(QDate(2026, 11, 20), QTime(14, 30));
        m_input.fingerprintProperties = {{CFingerprint::Width, 640},
                                         {CFingerprint::TrainingImagesCount, 12},
                                         {CFingerprint::NMSE, 0.06085526414468745},
                                         {CFingerprint::Model, QStringLiteral("QX-1")},
                                         {CFingerprint::CreationDate, m_created}};
        m_input.photosFolder = m_dir.path();
        m_input.reportPath = m_dir.filePath(QStringLiteral("report.pdf"));
        m_input.results = {{QFileInfo(m_withExif).absoluteFilePath(), Result{true, 0.9995, 0.0123, CQuorvexAPI::Success, 900}},
                           {QFileInfo(m_withoutExif).absoluteFilePath(), Result{false, 0.0, 0.001, CQuorvexAPI::Success, 2}}};
    }
    void TearDown() override { qutils::CHtmlToPdfTask::setConverterPath(QString()); }

    QStringList thumbnails() const
    {
        QStringList list;
        for (const QFileInfo& photo : m_input.photos)
            list << m_dir.filePath(QStringLiteral("thumbs/") + CGeneratorTask::thumbnailName(photo));
        return list;
    }

    QTemporaryDir m_dir;
    QString m_withExif;
    QString m_withoutExif;
    QString m_neverProcessed;
    QDateTime m_created;
    SReportInput m_input;
};

} // namespace

TEST_F(ReportTest, ThumbnailNamesComeFromTheFullPath)
{
    const QString a = CGeneratorTask::thumbnailName(QFileInfo(m_withExif));
    const QString b = CGeneratorTask::thumbnailName(QFileInfo(m_neverProcessed));
    EXPECT_NE(a, b) << "same name, different folders";
    EXPECT_EQ(a, CGeneratorTask::thumbnailName(QFileInfo(m_withExif)));
    EXPECT_EQ(a, QStringLiteral("%1.jpg").arg(qHash(QFileInfo(m_withExif).absoluteFilePath(), 0)));
    EXPECT_TRUE(CGeneratorTask::thumbnailName(QFileInfo(m_withoutExif)).endsWith(QStringLiteral(".png")));

    // Written to fit 300 × 300, in the photo's own format.
    const QString thumbnail = m_dir.filePath(a);
    ASSERT_TRUE(CGeneratorTask::writeThumbnail(m_withExif, thumbnail));
    const QImage image(thumbnail);
    EXPECT_EQ(image.size(), QSize(300, 225));
    EXPECT_FALSE(CGeneratorTask::writeThumbnail(m_dir.filePath(QStringLiteral("missing.jpg")), thumbnail + QStringLiteral(".x.jpg")));
}

TEST_F(ReportTest, FilterTexts)
{
    const QStringList expected = QStringLiteral("All photos|Fingerprint found with very high probability|"
                                                "Fingerprint found with high probability|Fingerprint found with medium "
                                                "probability|Fingerprint found with low probability|Fingerprint not "
                                                "found|Non-processed photos|Not compared photos")
                                     .split(QLatin1Char('|'));
    for (int type = 0; type < expected.size(); ++type)
        EXPECT_EQ(CGeneratorTask::filterText(type), expected.at(type)) << type;
    testutils::CLogCapture log;
    EXPECT_EQ(CGeneratorTask::filterText(8), QString());
    EXPECT_TRUE(log.hasRecord(QStringLiteral("ERROR"), QStringLiteral("quorvex/generatortask.cpp")));
}

TEST_F(ReportTest, DocumentPieces)
{
    // A photo the engine could not compare has a row of its own and is no "not found".
    const QString larger = m_dir.filePath(QStringLiteral("larger.jpg"));
    m_input.photos.append(QFileInfo(larger));
    Result notCompared{false, 0.0, 0.0, CQuorvexAPI::ImageFingerprintInconsistentSize, 0.0, QStringLiteral("a <reason>")};
    m_input.results.insert(larger, notCompared);
    m_input.sha256.insert(QFileInfo(m_withExif).absoluteFilePath(), QStringLiteral("ab12"));
    m_input.caseNumber = QStringLiteral("2026/17");
    m_input.notes = QStringLiteral("bag <4>\nsealed");
    const QString html = CGeneratorTask::buildDocument(m_input, thumbnails());

    EXPECT_TRUE(html.startsWith(QStringLiteral("\n\t<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Transitional//EN\" "
                                               "\"http://www.w3.org/TR/xhtml1/DTD/xhtml1-transitional.dtd\">")));
    EXPECT_TRUE(html.contains(QStringLiteral("content=\"text/html; charset=utf-8\"")));
    EXPECT_TRUE(html.contains(QStringLiteral("tr { page-break-inside: avoid; }")));
    EXPECT_TRUE(html.contains(QStringLiteral("<title>Quorvex Report</title></head><body><h1>Quorvex Report</h1><p>Generated by version ")));
    // Only the case fields given, escaped, lines kept.
    EXPECT_TRUE(html.contains(QStringLiteral("</p><br/><table><tbody><tr><td width = \"200px\"><h3>Case number</h3></td><td>2026/17</td></tr>"
                                             "<tr><td width = \"200px\"><h3>Notes</h3></td><td>bag &lt;4&gt;<br/>sealed</td></tr></tbody></table><br/>")));
    EXPECT_FALSE(html.contains(QStringLiteral("Examiner")));
    EXPECT_TRUE(html.contains(QStringLiteral("<h3>Fingerprint path </h3></td><td>%1</td></tr>")
                                  .arg(QDir::toNativeSeparators(m_input.fingerprintPath))));
    // Properties in key order, the date in the short format.
    const int width = html.indexOf(QStringLiteral("<h3>%1 </h3></td><td>640</td>").arg(CFingerprint::displayText(CFingerprint::Width)));
    const int model = html.indexOf(QStringLiteral("<h3>%1 </h3></td><td>QX-1</td>").arg(CFingerprint::displayText(CFingerprint::Model)));
    const int date = html.indexOf(QStringLiteral("<td>%1</td>").arg(QLocale::system().toString(m_created, QLocale::ShortFormat)));
    EXPECT_GT(width, 0);
    EXPECT_GT(model, width);
    EXPECT_GT(date, model);
    EXPECT_TRUE(html.contains(QStringLiteral("<td>0.0609</td>"))) << "NMSE to 3 significant digits";
    EXPECT_TRUE(html.contains(QStringLiteral("<h3>Fingerprint SHA-256 </h3></td><td>not computed (the file could not be read)</td>")));

    // The summary comes from the results map.
    const auto summaryRow = [](const QString& label, const QString& value) -> QString {
        return QStringLiteral("<tr><td width = \"200px\"><h3>%1</h3></td><td>%2</td></tr>").arg(label, value);
    };
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Photos path"), QDir::toNativeSeparators(m_dir.path()))));
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Photos analyzed"), QStringLiteral("3"))));
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Fingerprints found with very high probability"), QStringLiteral("1"))));
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Fingerprints found with low probability"), QStringLiteral("0"))));
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Fingerprints not found"), QStringLiteral("1"))));
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Not compared"), QStringLiteral("1"))));
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Report filter"), QStringLiteral("All photos"))));
    // The method, from the engine's own constants.
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Decision threshold"), QStringLiteral("PCE 60: a photo matches the fingerprint at or above it"))));
    EXPECT_TRUE(html.contains(QStringLiteral("<td>10 → 0.5, 60 → 0.95, 100 → 0.99, 200 → 0.995, 400 → 0.999, 2000 → 0.99999; ")));
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Search correction"), QStringLiteral("PCE − max(0, 2·ln(N/2)), N the positions examined"))));
    EXPECT_TRUE(html.contains(summaryRow(QStringLiteral("Reference photos"), QStringLiteral("12"))));
    EXPECT_TRUE(html.contains(QStringLiteral("<thead><tr><th width = \"200px\">Photo</th><th>Result</th><th>EXIF</th></tr></thead><tbody>")));

    // One row per photo: the thumbnail as an encoded file URL, path, result, EXIF.
    const QString firstThumbnail = QFileInfo(thumbnails().at(0)).absoluteFilePath();
    const QString url = QString::fromLatin1(QUrl::toPercentEncoding(firstThumbnail, "/"));
    EXPECT_TRUE(html.contains(QStringLiteral("<tr><td align = \"center\"><img src = \"file://%1\" style=\"max-width: 200px; max-height: 200px;\" /></td><td><h3>%2</h3>"
                                             "<p>640 × 480 pixels</p><p>SHA-256: ab12</p><br>")
                                  .arg(url, QDir::toNativeSeparators(m_withExif))));
    EXPECT_TRUE(html.contains(QStringLiteral("<h3><b>Match: very high probability</b></h3><br>Probability: 0.9995 <br>Correlation: 0.0123 <br>PCE: 900.0 "
                                             "<br>Scale: 1.00 <br>Orientation: 0° <br>Status: %1</td><td><p>").arg(CQuorvexAPI::statusText(CQuorvexAPI::Success))));
    EXPECT_TRUE(html.contains(QStringLiteral("Manufacturer: <span class = \"h2\">Veltrano</span><br/>Model: <span class = \"h2\">QX-1</span><br/>")));
    // A no-match row has its numbers too; a file not hashed says so.
    EXPECT_TRUE(html.contains(QStringLiteral("<p>64 × 48 pixels</p><p>SHA-256: not computed (the file could not be read)</p><br>"
                                             "<h3>No match</h3><br>Probability: 0 <br>Correlation: 0.001 <br>PCE: 2.0 <br>Scale: 1.00")));
    EXPECT_TRUE(html.contains(QStringLiteral("</td><td><p><h3>No EXIF data in file</h3></p></td></tr>")));
    // Never processed: the text of status 0.
    EXPECT_TRUE(html.contains(QStringLiteral("<h3>%1</h3>").arg(QDir::toNativeSeparators(m_neverProcessed)) + QStringLiteral("<p>640 × 480 pixels</p><p>SHA-256: not computed (the file could not be read)</p><br><h3>%1</h3></td>").arg(CQuorvexAPI::statusText(CQuorvexAPI::Invalid))));
    EXPECT_TRUE(html.contains(QStringLiteral("<h3>%1</h3><p>SHA-256: not computed (the file could not be read)</p><br><h3>Not compared: Size is incompatible with fingerprint</h3>"
                                             "<p>a &lt;reason&gt;</p></td>")
                                  .arg(QDir::toNativeSeparators(larger))));
    EXPECT_TRUE(html.endsWith(QStringLiteral("</p></td></tr></tbody></table></div></body></html>")));
    EXPECT_EQ(html.count(QStringLiteral("<tr><td align = \"center\">")), 4);

    // The result texts by class.
    EXPECT_TRUE(CGeneratorTask::resultText(Result{true, 0.995, 0.1, CQuorvexAPI::Success, 0}).startsWith(QStringLiteral("<h3><b>Match: high probability")));
    EXPECT_TRUE(CGeneratorTask::resultText(Result{true, 0.99, 0.1, CQuorvexAPI::Success, 0}).startsWith(QStringLiteral("<h3><b>Match: medium probability")));
    EXPECT_TRUE(CGeneratorTask::resultText(Result{true, 0.9899, 0.1, CQuorvexAPI::Success, 0}).startsWith(QStringLiteral("<h3><b>Match: low probability")));
    EXPECT_EQ(CGeneratorTask::resultText(Result{false, 0.0, 0.0, CQuorvexAPI::BrokenImage, 0}),
              QStringLiteral("<h3>%1</h3>").arg(CQuorvexAPI::statusText(CQuorvexAPI::BrokenImage)));
    EXPECT_EQ(CGeneratorTask::resultText(Result{false, 0.0, 0.0, CQuorvexAPI::InconsistentMetadata, 0}),
              QStringLiteral("<h3>Not compared: Different camera type</h3>"));
    // The scale only where the photo is not the fingerprint's size.
    EXPECT_TRUE(CGeneratorTask::resultText(Result{true, 0.999, 0.1, CQuorvexAPI::Success, 59.84, {}, 0.8, 270})
                    .contains(QStringLiteral("PCE: 59.8 <br>Scale: 0.80 <br>Orientation: 270°")));

    const QString footer = CGeneratorTask::footerText();
    EXPECT_TRUE(footer.startsWith(QStringLiteral("Generated by Quorvex ")));
    EXPECT_TRUE(footer.contains(QStringLiteral("\t\t\t") + QChar(0x00A9) + QStringLiteral(" VELTRANO Labs, https://")));
}

TEST_F(ReportTest, TaskWritesThumbnailsAndTheDocumentThenConverts)
{
    // A converter that keeps a copy of what it was given and "writes" the PDF.
    const QString converter = m_dir.filePath(QStringLiteral("convert.sh"));
    ASSERT_TRUE(testutils::writeFile(converter, "#!/bin/sh\n"
                                                "dir=$(dirname \"$0\")\n"
                                                "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > \"$dir/args.txt\"\n"
                                                "eval input=\\${$#}\n"
                                                "cp \"$(printf '%s' \"$input\" | sed 's|^file://||')\" \"$dir/seen.html\"\n"
                                                "ls \"$(dirname \"$(printf '%s' \"$input\" | sed 's|^file://||')\")\" > \"$dir/folder.txt\"\n"
                                                "echo 50%\necho 100%\nprintf 'pdf' > \"$dir/report.pdf\"\n"));
    QFile::setPermissions(converter, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qutils::CHtmlToPdfTask::setConverterPath(converter);
    m_input.photos.append(QFileInfo(m_withExif)); // listed twice: one thumbnail
    ASSERT_TRUE(testutils::writeFile(m_input.fingerprintPath, "abc"));
    auto task = qutils::makeTask<CGeneratorTask>(m_input);
    QList<qint64> positions;
    qint64 maximum = 0;
    QObject::connect(task.get(), &qutils::CTask::progressPos, [&](qint64 p) { positions << p; });
    QObject::connect(task.get(), &qutils::CTask::progressRange, [&](qint64, qint64 max) { maximum = qMax(maximum, max); });
    ASSERT_TRUE(task->run());
    EXPECT_EQ(maximum, 4 + 100);
    EXPECT_EQ(positions, (QList<qint64>{0, 1, 2, 3, 4 + 50, 4 + 100}));
    EXPECT_TRUE(QFileInfo::exists(m_input.reportPath));
    const QString seen = testutils::readText(m_dir.filePath(QStringLiteral("seen.html")));
    EXPECT_TRUE(seen.startsWith(QStringLiteral("\n\t<!DOCTYPE html")));
    EXPECT_TRUE(seen.contains(QStringLiteral("Manufacturer: <span class = \"h2\">Veltrano</span>"))) << "written as UTF-8 text";
    // The hashes are the task's own: the fingerprint's known one, one per photo row.
    EXPECT_TRUE(seen.contains(QStringLiteral("<td>ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad</td>")));
    EXPECT_EQ(seen.count(QRegularExpression(QStringLiteral("<p>SHA-256: [0-9a-f]{64}</p>"))), 4);
    const QStringList folder = testutils::readText(m_dir.filePath(QStringLiteral("folder.txt"))).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    EXPECT_EQ(folder.size(), 4) << folder.join(QLatin1Char(' ')).toStdString() << ": three thumbnails and the document";
    const QStringList args = testutils::readText(m_dir.filePath(QStringLiteral("args.txt"))).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_GE(args.size(), 4);
    const int footer = args.indexOf(QStringLiteral("--footer-text-left"));
    ASSERT_GE(footer, 0);
    EXPECT_TRUE(args.value(footer + 1).startsWith(QStringLiteral("Generated by Quorvex ")));
    EXPECT_EQ(args.indexOf(QStringLiteral("Page [page] of [topage]")),
              args.indexOf(QStringLiteral("--header-text-right")) + 1);

    // Cancelled during the thumbnails: no document, no PDF.
    QFile::remove(m_input.reportPath);
    QFile::remove(m_dir.filePath(QStringLiteral("seen.html")));
    auto cancelled = qutils::makeTask<CGeneratorTask>(m_input);
    cancelled->cancel();
    try
    {
        cancelled->run();
        ADD_FAILURE() << "a cancelled report was written";
    }
    catch (const qutils::CException& e)
    {
        EXPECT_EQ(e.message(), QStringLiteral("Cancelled by user"));
        EXPECT_EQ(e.code(), 1223);
    }
    EXPECT_FALSE(QFileInfo::exists(m_input.reportPath));
    EXPECT_FALSE(QFileInfo::exists(m_dir.filePath(QStringLiteral("seen.html"))));
}
