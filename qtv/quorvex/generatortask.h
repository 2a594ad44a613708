#pragma once

#include "fingerprint.h"

#include "qutils/quorvexapi.h"
#include "qutils/tasks.h"

#include <QFileInfoList>
#include <QMap>
#include <QPair>
#include <QString>
#include <QStringList>

#include <memory>

namespace qutils
{
class CTempFolder;
}

// What one report is made of.
struct SReportInput
{
    QFileInfoList photos;       // in report order
    int filterType = 0;         // 0 all … 6 not processed, 7 not compared, as the analysis page's filter
    QString fingerprintPath;
    CFingerprint::Properties fingerprintProperties;
    QString photosFolder;       // the analysed folder
    QString reportPath;         // the PDF to write
    QMap<QString, qutils::CQuorvexAPI::SAnalysisResult> results; // by absolute path
    // SHA-256 in hex by absolute path; the task hashes the photos missing here
    // (and the fingerprint when its hash is empty). Empty for an unreadable file.
    QMap<QString, QString> sha256;
    QString fingerprintSha256;
    // Shown at the top when given.
    QString caseNumber;
    QString examiner;
    QString notes;

    // An identification against a library of fingerprints instead of one
    // fingerprint: set when library is not empty.
    struct SLibraryFile
    {
        QString path;
        QString camera; // make and model
        QString size;   // of the camera's image
        QString sha256;
        QString status; // empty when the file took part
    };
    QList<SLibraryFile> library;
    QMap<QString, QString> verdicts; // by absolute path: the photo's camera(s), or why none
    QList<QPair<QString, QString>> summary; // the counts, label and value
};

// Turns one analysis into a PDF report: a thumbnail of every photo in a
// temporary folder, one XHTML document (fingerprint properties, summary, a
// row per photo with its result and EXIF data), then the converter.
class CGeneratorTask : public qutils::CTask
{
    Q_OBJECT

public:
    explicit CGeneratorTask(const SReportInput& input);
    ~CGeneratorTask() override;

    bool run() override;

    // The pieces, public so their texts can be checked one by one.
    static QString thumbnailName(const QFileInfo& photo);
    static QString filterText(int filterType);
    static QString footerText();
    // "Page [page] of [topage]", for the converter to fill on every page.
    static QString pageNumberText();
    // How the findings were reached: engine, threshold, ladder, search
    // correction, reference photos; rows of a two-column table.
    static QString methodRows(const SReportInput& input);
    // The fingerprint's properties, the counts of an analysis and the method.
    static QString fingerprintTables(const SReportInput& input);
    // The library's files and the counts of an identification.
    static QString libraryTables(const SReportInput& input);
    // The case number, examiner and notes given, as a table; empty when none is.
    static QString caseTable(const SReportInput& input);
    // The document for these photos with these thumbnails (one per photo).
    static QString buildDocument(const SReportInput& input, const QStringList& thumbnails);
    // A photo's result cell and EXIF cell contents.
    static QString resultText(const qutils::CQuorvexAPI::SAnalysisResult& result);
    static QString exifText(const QString& photoPath);
    // "4000 × 3000 pixels" from the file's header; empty when it cannot be read.
    static QString pixelSizeText(const QString& photoPath);
    // Writes a thumbnail that fits 300 × 300; false when it cannot be written.
    static bool writeThumbnail(const QString& photoPath, const QString& thumbnailPath);

private:
    SReportInput m_input;
    std::unique_ptr<qutils::CTempFolder> m_folder;
    QStringList m_thumbnails;
};
