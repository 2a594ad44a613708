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
    // otherwise. False when the file cannot be read, with the reason in error.
    static bool readHtmlFile(const QString& path, QString* html, QString* error);

protected:
    QVariant loadResource(int type, const QUrl& name) override;

private:
    void substituteMissingFonts();

    QStringList m_missingResources;
};

} // namespace htmltopdf
