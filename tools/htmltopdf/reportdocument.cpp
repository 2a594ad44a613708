#include "reportdocument.h"

#include <QAbstractTextDocumentLayout>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFontDatabase>
#include <QImageReader>
#include <QRegularExpression>
#include <QSet>
#include <QTextBlock>
#include <QTextCodec>
#include <QTextCursor>
#include <QTextFormat>
#include <QUrl>

namespace htmltopdf
{

namespace
{

// Faces tried in order for each kind; the first installed one wins.
const QStringList SansFaces = {QStringLiteral("DejaVu Sans"),     QStringLiteral("Noto Sans"),
                               QStringLiteral("Liberation Sans"), QStringLiteral("Nimbus Sans"),
                               QStringLiteral("FreeSans"),        QStringLiteral("Arial")};
const QStringList SerifFaces = {QStringLiteral("DejaVu Serif"),     QStringLiteral("Noto Serif"),
                                QStringLiteral("Liberation Serif"), QStringLiteral("Nimbus Roman"),
                                QStringLiteral("FreeSerif"),        QStringLiteral("Times New Roman")};
const QStringList MonoFaces = {QStringLiteral("DejaVu Sans Mono"), QStringLiteral("Noto Sans Mono"),
                               QStringLiteral("Liberation Mono"),  QStringLiteral("Nimbus Mono PS"),
                               QStringLiteral("FreeMono"),         QStringLiteral("Courier New")};

const QStringList GenericFamilies = {QStringLiteral("sans-serif"), QStringLiteral("serif"),
                                     QStringLiteral("monospace"),  QStringLiteral("cursive"),
                                     QStringLiteral("fantasy"),    QStringLiteral("system-ui")};

QStringList installed(const QStringList& faces)
{
    const QStringList families = QFontDatabase().families();
    QStringList result;
    for (const QString& face : faces)
        if (families.contains(face, Qt::CaseInsensitive))
            result.append(face);
    return result;
}

// Fonts a document may name on another system, by the kind of face to use instead.
QStringList replacementsFor(const QString& family)
{
    static const QStringList monoHints = {QStringLiteral("mono"),   QStringLiteral("courier"),
                                          QStringLiteral("consol"), QStringLiteral("menlo"),
                                          QStringLiteral("monaco"), QStringLiteral("code")};
    static const QStringList serifHints = {QStringLiteral("times"),     QStringLiteral("georgia"),
                                           QStringLiteral("cambria"),   QStringLiteral("garamond"),
                                           QStringLiteral("palatino"),  QStringLiteral("book antiqua"),
                                           QStringLiteral("constantia")};
    const QString lower = family.toLower();
    const auto hinted = [&lower](const QStringList& hints)
    {
        return std::any_of(hints.cbegin(), hints.cend(),
                           [&lower](const QString& h) { return lower.contains(h); });
    };
    if (hinted(monoHints))
        return installed(MonoFaces);
    // "Serif" alone, not "Sans Serif".
    if (hinted(serifHints) ||
        (lower.contains(QStringLiteral("serif")) && !lower.contains(QStringLiteral("sans"))))
        return installed(SerifFaces);
    return installed(SansFaces);
}

} // namespace

CReportDocument::CReportDocument(QPaintDevice* device, QObject* parent) : QTextDocument(parent)
{
    documentLayout()->setPaintDevice(device);
    setDocumentMargin(0);
    QFont font(sansFamily());
    font.setPointSizeF(12); // a browser's 16 px
    // Latin text without ligatures: "fi" stays two letters when the PDF's
    // text is copied or searched. Scripts that need shaping still get it.
    font.setStyleStrategy(QFont::PreferNoShaping);
    setDefaultFont(font);
}

QString CReportDocument::sansFamily()
{
    const QStringList faces = installed(SansFaces);
    return faces.isEmpty() ? QStringLiteral("sans-serif") : faces.first();
}

bool CReportDocument::readHtmlFile(const QString& path, QString* html, QString* error)
{
    if (QFileInfo(path).isDir())
    {
        *error = QStringLiteral("%1 is a folder").arg(QDir::toNativeSeparators(path));
        return false;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
    {
        *error = QStringLiteral("cannot read %1: %2").arg(QDir::toNativeSeparators(path), file.errorString());
        return false;
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
    {
        *error = QStringLiteral("cannot read %1: %2").arg(QDir::toNativeSeparators(path), file.errorString());
        return false;
    }
    QTextCodec* codec = QTextCodec::codecForHtml(bytes, QTextCodec::codecForName("UTF-8"));
    *html = codec->toUnicode(bytes);
    return true;
}

void CReportDocument::honourExplicitFontSizes()
{
    // Headings carry a size step that Qt lets win over a size the style sheet
    // states in pixels or points; a browser lets the style sheet win.
    QTextCursor cursor(this);
    // One edit: the document is laid out again once, not after every fragment.
    cursor.beginEditBlock();
    for (QTextBlock block = begin(); block.isValid(); block = block.next())
    {
        for (QTextBlock::iterator it = block.begin(); !it.atEnd(); ++it)
        {
            const QTextFragment fragment = it.fragment();
            QTextCharFormat format = fragment.charFormat();
            if (!format.hasProperty(QTextFormat::FontSizeAdjustment) ||
                !(format.hasProperty(QTextFormat::FontPixelSize) || format.hasProperty(QTextFormat::FontPointSize)))
                continue;
            format.clearProperty(QTextFormat::FontSizeAdjustment);
            cursor.setPosition(fragment.position());
            cursor.setPosition(fragment.position() + fragment.length(), QTextCursor::KeepAnchor);
            cursor.setCharFormat(format);
        }
    }
    cursor.endEditBlock();
}

QString CReportDocument::applyImageLimits(const QString& html, const QUrl& base)
{
    // Qt's rich text ignores max-width and max-height; an image that states
    // them gets the width and height attributes that keep it inside them.
    static const QRegularExpression imageTag(QStringLiteral("<img\\b[^>]*>"), QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression sizeAttribute(QStringLiteral("\\b(width|height)\\s*="),
                                                  QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression source(QStringLiteral("\\bsrc\\s*=\\s*(\"([^\"]*)\"|'([^']*)')"),
                                           QRegularExpression::CaseInsensitiveOption);
    const auto limit = [](const QString& tag, const char* property) {
        const QRegularExpression pattern(QStringLiteral("%1\\s*:\\s*([0-9.]+)\\s*px").arg(QLatin1String(property)),
                                         QRegularExpression::CaseInsensitiveOption);
        const QRegularExpressionMatch match = pattern.match(tag);
        return match.hasMatch() ? match.captured(1).toDouble() : 0.0;
    };
    QString result;
    int from = 0;
    QRegularExpressionMatchIterator tags = imageTag.globalMatch(html);
    while (tags.hasNext())
    {
        const QRegularExpressionMatch tag = tags.next();
        result += html.midRef(from, tag.capturedStart() - from);
        from = tag.capturedEnd();
        QString text = tag.captured();
        const double maxWidth = limit(text, "max-width");
        const double maxHeight = limit(text, "max-height");
        const QRegularExpressionMatch src = source.match(text);
        if ((maxWidth > 0 || maxHeight > 0) && !sizeAttribute.match(text).hasMatch() && src.hasMatch())
        {
            const QString value = src.captured(2).isEmpty() ? src.captured(3) : src.captured(2);
            const QUrl url = base.resolved(QUrl(value));
            const QSize natural = QImageReader(url.isLocalFile() ? url.toLocalFile() : value).size();
            if (natural.isValid() && !natural.isEmpty())
            {
                double scale = 1.0;
                if (maxWidth > 0)
                    scale = qMin(scale, maxWidth / natural.width());
                if (maxHeight > 0)
                    scale = qMin(scale, maxHeight / natural.height());
                const QString size = QStringLiteral(" width=\"%1\" height=\"%2\"")
                                         .arg(qMax(1, qRound(natural.width() * scale)))
                                         .arg(qMax(1, qRound(natural.height() * scale)));
                text.insert(4, size);
            }
        }
        result += text;
    }
    result += html.midRef(from);
    return result;
}

void CReportDocument::setSource(const QString& html, const QString& baseFolder)
{
    m_missingResources.clear();
    setBaseUrl(QUrl::fromLocalFile(QDir(baseFolder).absolutePath() + QLatin1Char('/')));
    setHtml(applyImageLimits(html, baseUrl()));
    honourExplicitFontSizes();
    substituteMissingFonts();
}

void CReportDocument::layOut(qreal width)
{
    // Words stay whole, as in a browser: a table column grows to its longest
    // word rather than breaking "Thumbnail" in two (Qt's default would).
    QTextOption option = defaultTextOption();
    option.setWrapMode(QTextOption::WordWrap);
    setDefaultTextOption(option);
    setTextWidth(width);
    // Unless a word (a long file path, say) is wider than the page: then words
    // break where they must, or the text would run off the paper.
    if (idealWidth() > width + 0.5)
    {
        option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
        setDefaultTextOption(option);
    }
}

QVariant CReportDocument::loadResource(int type, const QUrl& name)
{
    // Qt reads local files, "data:" URLs and names relative to the base URL;
    // nothing is fetched from the network.
    const QVariant resource = QTextDocument::loadResource(type, name);
    if (resource.isNull() && (type == ImageResource || type == StyleSheetResource))
    {
        const QUrl resolved = name.isRelative() ? baseUrl().resolved(name) : name;
        const QString shown = resolved.isLocalFile() ? QDir::toNativeSeparators(resolved.toLocalFile())
                                                     : resolved.toDisplayString();
        if (!m_missingResources.contains(shown))
            m_missingResources.append(shown);
    }
    return resource;
}

void CReportDocument::substituteMissingFonts()
{
    // Substitutions are global to the process, so each family is done once.
    static QSet<QString> done;
    const QStringList available = QFontDatabase().families();
    QSet<QString> families;
    const QVector<QTextFormat> formats = allFormats();
    for (const QTextFormat& format : formats)
    {
        if (!format.isCharFormat())
            continue;
        const QTextCharFormat charFormat = format.toCharFormat();
        families.insert(charFormat.fontFamily());
        const QStringList listed = charFormat.fontFamilies().toStringList();
        for (const QString& family : listed)
            families.insert(family);
    }
    for (QString family : qAsConst(families))
    {
        family = family.trimmed();
        if (family.isEmpty() || done.contains(family.toLower()) ||
            GenericFamilies.contains(family, Qt::CaseInsensitive) ||
            available.contains(family, Qt::CaseInsensitive))
            continue;
        done.insert(family.toLower());
        const QStringList replacements = replacementsFor(family);
        if (!replacements.isEmpty())
            QFont::insertSubstitutions(family, replacements);
    }
}

} // namespace htmltopdf
