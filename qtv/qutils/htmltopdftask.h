#pragma once

#include "tasks.h"

#include <QString>

class QProcess;

namespace qutils
{

// Converts one HTML file into one PDF file by running the converter program
// "HtmlToPdf" as a child process: builds its command line from the options,
// follows its "NN%" lines as progress, kills it when it stops working (no
// processor time for the idle limit) and maps its exit to error texts.
// Failures are thrown as CException: 1287 converter failures, 112 "Cannot
// store pdf", 1223 "User abort".
class CHtmlToPdfTask : public CTask
{
    Q_OBJECT

public:
    static constexpr int DefaultIdleTimeoutMs = 300000;
    // The converter's exit codes: output not writable, interrupted.
    static constexpr int CannotStoreExitCode = 2;
    static constexpr int UserAbortExitCode = 62097;

    CHtmlToPdfTask(const QString& htmlFile, const QString& pdfFile);
    ~CHtmlToPdfTask() override;

    void setFooterLeft(const QString& text) { m_footerLeft = text; }
    void setFooterCenter(const QString& text) { m_footerCenter = text; }
    void setFooterRight(const QString& text) { m_footerRight = text; }
    void setFooterHtml(const QString& html) { m_footerHtml = html; }
    void setHeaderLeft(const QString& text) { m_headerLeft = text; }
    void setHeaderCenter(const QString& text) { m_headerCenter = text; }
    void setHeaderRight(const QString& text) { m_headerRight = text; }
    void setHeaderHtml(const QString& html) { m_headerHtml = html; }
    void setCover(const QString& file) { m_cover = file; }
    void setTocStyleSheet(const QString& xsl) { m_tocStyleSheet = xsl; }

    bool run() override;

    // How long the last conversion took.
    qint64 conversionTimeMs() const { return m_conversionTimeMs; }

    // The converter's arguments for the options set, in the order it expects.
    // Temporary header, footer and TOC files are made as a side effect.
    QStringList arguments();

    // The converter: beside the program, else beside the loaded Qt Core
    // library. Throws "Cannot get module filename" or "Missing application files".
    static QString findConverter();
    // Tests and special installations point at another converter ("" restores the search).
    static void setConverterPath(const QString& path);
    // The idle limit of the watchdog (tests shorten it).
    static void setIdleTimeout(int milliseconds);

private:
    QString writeTemporary(const QString& nameTemplate, const QString& text);
    void readProgress(QProcess& process);

    QString m_html;
    QString m_pdf;
    QString m_footerLeft, m_footerCenter, m_footerRight, m_footerHtml;
    QString m_headerLeft, m_headerCenter, m_headerRight, m_headerHtml;
    QString m_cover;
    QString m_tocStyleSheet;
    QStringList m_temporaryFiles;
    qint64 m_conversionTimeMs = 0;
};

} // namespace qutils
