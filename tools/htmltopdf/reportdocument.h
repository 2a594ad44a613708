#pragma once

#include <QStringList>
#include <QTextDocument>

class QPaintDevice;

namespace htmltopdf
{

// A page of HTML laid out for the PDF: resolution of the given device (the
// PDF writer's 96 dpi, so CSS pixels keep their size), no document margin
// (the page has its own), fonts the document names but the system lacks
// replaced by installed faces of the same kind.
class CReportDocument : public QTextDocument
{
    Q_OBJECT

public:
    explicit CReportDocument(QPaintDevice* device, QObject* parent = nullptr);

    // Relative links resolve against baseFolder.
    void setSource(const QString& html, const QString& baseFolder);
    // The page with width and height attributes added to every image that
    // states a max-width or max-height in its style.
    static QString applyImageLimits(const QString& html, const QUrl& base);
    // Lets a font size stated by the style sheet win over a heading's size step.
    void honourExplicitFontSizes();
    // Lays the document out as one long sheet of the given width.
    void layOut(qreal width);

    // Images and style sheets the document names but that could not be read.
    QStringList missingResources() const { return m_missingResources; }

    // The installed sans-serif face used for text and in place of missing
    // faces such as "Segoe UI".
    static QString sansFamily();

    // Reads an HTML file's text: the encoding its meta tag names, UTF-8
    // otherwise. False, with the reason in error, when the file cannot be
    // read or is beyond the limits below.
    static bool readHtmlFile(const QString& path, QString* html, QString* error);

    // Limits that keep a hostile page from taking unbounded time or memory.
    // Qt's layout time grows about twofold with each level of nested tables,
    // and its parser's time with the square of any nesting depth.
    static constexpr int MaximumTableNesting = 8;
    static constexpr int MaximumNesting = 64;
    // Files read (pages, pictures, style sheets) are regular files of at most
    // this size: a device or a pipe could be endless or block.
    static constexpr qint64 MaximumFileBytes = 64 * 1024 * 1024;
    static constexpr qint64 MaximumImagePixels = 100 * 1000 * 1000;

    // False, with the reason, when elements (or tables) nest deeper than the
    // limits. Looks at the tags only, before Qt parses anything; unclosed
    // tags count as open, so the depth found is never below Qt's.
    static bool checkNesting(const QString& html, QString* error);
    // A regular local file's bytes, at most MaximumFileBytes.
    static bool readLocalFile(const QString& path, QByteArray* bytes, QString* error);

    // Images and style sheets the document names but refused as beyond the
    // limits ("name: reason"); the conversion fails rather than leave them out.
    QStringList refusedResources() const { return m_refusedResources; }

protected:
    QVariant loadResource(int type, const QUrl& name) override;

private:
    void substituteMissingFonts();
    static QVariant decodeImage(const QByteArray& bytes, QString* refusal);

    QStringList m_missingResources;
    QStringList m_refusedResources;
};

} // namespace htmltopdf
