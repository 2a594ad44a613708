#include "reportdocument.h"

#include <QAbstractTextDocumentLayout>
#include <QBuffer>
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

#include <algorithm>

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

// Elements that never hold others.
const QSet<QString> VoidElements = {
    QStringLiteral("area"),  QStringLiteral("base"),  QStringLiteral("br"),     QStringLiteral("col"),
    QStringLiteral("embed"), QStringLiteral("hr"),    QStringLiteral("img"),    QStringLiteral("input"),
    QStringLiteral("link"),  QStringLiteral("meta"),  QStringLiteral("param"),  QStringLiteral("source"),
    QStringLiteral("track"), QStringLiteral("wbr")};

// Whether opening an element closes the unclosed one directly above it, as
// Qt's parser does (it closes at least these); "<li>a<li>b" are siblings.
bool closesOpenTop(const QString& opening, const QString& top)
{
    if (opening == QLatin1String("p") || opening == QLatin1String("li") || opening == QLatin1String("dd"))
        return top == opening;
    if (opening == QLatin1String("td") || opening == QLatin1String("th"))
        return top == QLatin1String("td") || top == QLatin1String("th");
    if (opening == QLatin1String("tr"))
        return top == QLatin1String("td") || top == QLatin1String("th") || top == QLatin1String("tr");
    if (opening == QLatin1String("dt"))
        return top == QLatin1String("dt") || top == QLatin1String("dd");
    return false;
}

// Index just past the tag whose name ends at from: the first '>' outside a
// quoted attribute value.
int tagEnd(const QString& html, int from)
{
    const int size = html.size();
    int i = from;
    while (i < size && html.at(i) != QLatin1Char('>'))
    {
        if (html.at(i) != QLatin1Char('='))
        {
            ++i;
            continue;
        }
        ++i;
        while (i < size && html.at(i).isSpace())
            ++i;
        if (i < size && (html.at(i) == QLatin1Char('"') || html.at(i) == QLatin1Char('\'')))
        {
            const int close = html.indexOf(html.at(i), i + 1);
            i = close < 0 ? size : close + 1;
        }
    }
    return i + 1;
}

// Reads a regular file of at most maximum bytes; the reason when it cannot,
// and whether that is the limits rather than a failure to read.
QString readBounded(const QString& path, qint64 maximum, QByteArray* bytes, bool* beyondLimits = nullptr)
{
    bool ignored = false;
    bool& limited = beyondLimits ? *beyondLimits : ignored;
    limited = true;
    // Checked before opening: opening a pipe blocks, a device may be endless.
    const QFileInfo info(path);
    if (info.exists() && !info.isFile())
        return QStringLiteral("not a regular file");
    QFile file(path);
    limited = false;
    if (!file.open(QIODevice::ReadOnly))
        return file.errorString();
    // Read with a bound: the file may have grown or been replaced since.
    *bytes = file.read(maximum + 1);
    if (file.error() != QFileDevice::NoError)
        return file.errorString();
    if (bytes->size() > maximum)
    {
        limited = true;
        bytes->clear();
        return QStringLiteral("larger than %1 MiB").arg(maximum >> 20);
    }
    return QString();
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

bool CReportDocument::readLocalFile(const QString& path, QByteArray* bytes, QString* error)
{
    if (QFileInfo(path).isDir())
    {
        *error = QStringLiteral("%1 is a folder").arg(QDir::toNativeSeparators(path));
        return false;
    }
    const QString problem = readBounded(path, MaximumFileBytes, bytes);
    if (!problem.isEmpty())
        *error = QStringLiteral("cannot read %1: %2").arg(QDir::toNativeSeparators(path), problem);
    return problem.isEmpty();
}

bool CReportDocument::readHtmlFile(const QString& path, QString* html, QString* error)
{
    QByteArray bytes;
    if (!readLocalFile(path, &bytes, error))
        return false;
    QTextCodec* codec = QTextCodec::codecForHtml(bytes, QTextCodec::codecForName("UTF-8"));
    *html = codec->toUnicode(bytes);
    QString problem;
    if (!checkNesting(*html, &problem))
    {
        *error = QStringLiteral("cannot convert %1: %2").arg(QDir::toNativeSeparators(path), problem);
        return false;
    }
    return true;
}

bool CReportDocument::checkNesting(const QString& html, QString* error)
{
    QVector<QString> open;
    int tables = 0;
    const int size = html.size();
    int i = 0;
    while ((i = html.indexOf(QLatin1Char('<'), i)) >= 0)
    {
        if (html.midRef(i, 4) == QLatin1String("<!--"))
        {
            const int end = html.indexOf(QStringLiteral("-->"), i + 4);
            i = end < 0 ? size : end + 3;
            continue;
        }
        // Declarations and processing instructions end at the first '>'.
        if (html.midRef(i + 1, 1) == QLatin1String("!") || html.midRef(i + 1, 1) == QLatin1String("?"))
        {
            const int end = html.indexOf(QLatin1Char('>'), i);
            i = end < 0 ? size : end + 1;
            continue;
        }
        const bool closing = i + 1 < size && html.at(i + 1) == QLatin1Char('/');
        const int nameStart = i + (closing ? 2 : 1);
        int nameEnd = nameStart;
        while (nameEnd < size && (html.at(nameEnd).isLetterOrNumber() || html.at(nameEnd) == QLatin1Char('-') ||
                                  html.at(nameEnd) == QLatin1Char(':')))
            ++nameEnd;
        // Not a tag ("a < b"): what follows is still looked at.
        if (nameEnd == nameStart || !html.at(nameStart).isLetter())
        {
            ++i;
            continue;
        }
        const QString name = html.mid(nameStart, nameEnd - nameStart).toLower();
        i = tagEnd(html, nameEnd);
        if (closing)
        {
            const int match = open.lastIndexOf(name);
            if (match >= 0)
            {
                tables -= static_cast<int>(std::count(open.cbegin() + match, open.cend(), QStringLiteral("table")));
                open.resize(match);
            }
            continue;
        }
        if (VoidElements.contains(name))
            continue;
        while (!open.isEmpty() && closesOpenTop(name, open.constLast()))
            open.removeLast();
        open.append(name);
        if (name == QLatin1String("table") && ++tables > MaximumTableNesting)
        {
            *error = QStringLiteral("tables nested more than %1 deep").arg(MaximumTableNesting);
            return false;
        }
        if (open.size() > MaximumNesting)
        {
            *error = QStringLiteral("elements nested more than %1 deep").arg(MaximumNesting);
            return false;
        }
        // Qt takes a style sheet or script as text up to the next end tag,
        // whichever it is.
        if (name == QLatin1String("style") || name == QLatin1String("script"))
        {
            const int end = html.indexOf(QStringLiteral("</"), i);
            i = end < 0 ? size : end;
        }
    }
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
            // Only pictures that would be loaded are opened: a pipe would block.
            const QFileInfo file(url.isLocalFile() ? url.toLocalFile() : value);
            const bool readable = file.isFile() && file.size() <= MaximumFileBytes;
            const QSize natural = readable ? QImageReader(file.filePath()).size() : QSize();
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
    m_refusedResources.clear();
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

QVariant CReportDocument::decodeImage(const QByteArray& bytes, QString* refusal)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    if (!reader.canRead())
        return QVariant();
    // The header's size, before any pixel is decoded: a small file can
    // claim a huge picture.
    const QSize size = reader.size();
    if (!size.isValid())
        *refusal = QStringLiteral("picture of unknown size");
    else if (static_cast<qint64>(size.width()) * size.height() > MaximumImagePixels)
        *refusal = QStringLiteral("picture of %1 x %2 pixels, more than %3 million")
                       .arg(size.width())
                       .arg(size.height())
                       .arg(MaximumImagePixels / 1000000);
    if (!refusal->isEmpty())
        return QVariant();
    const QImage image = reader.read();
    return image.isNull() ? QVariant() : QVariant(image);
}

QVariant CReportDocument::loadResource(int type, const QUrl& name)
{
    if (type != ImageResource && type != StyleSheetResource)
        return QTextDocument::loadResource(type, name);
    // Local files, "data:" URLs and names relative to the base URL, read
    // here rather than by Qt, which would read any file (a device, a pipe)
    // whole; nothing is fetched from the network.
    const QUrl resolved = name.isRelative() ? baseUrl().resolved(name) : name;
    const QString shown = resolved.isLocalFile() ? QDir::toNativeSeparators(resolved.toLocalFile())
                                                 : resolved.toDisplayString(QUrl::RemoveQuery).left(80);
    QByteArray bytes;
    QString refusal;
    bool read = false;
    if (resolved.scheme().compare(QLatin1String("data"), Qt::CaseInsensitive) == 0)
    {
        // data:[<type>][;base64],<data>
        const QByteArray url = resolved.toEncoded();
        const int comma = url.indexOf(',');
        if (comma > 0)
        {
            const QByteArray payload = QByteArray::fromPercentEncoding(url.mid(comma + 1));
            bytes = url.left(comma).endsWith(";base64") ? QByteArray::fromBase64(payload) : payload;
            read = true;
        }
    }
    else if (resolved.isLocalFile() && QFileInfo::exists(resolved.toLocalFile()) &&
             !QFileInfo(resolved.toLocalFile()).isDir())
    {
        bool beyondLimits = false;
        const QString problem = readBounded(resolved.toLocalFile(), MaximumFileBytes, &bytes, &beyondLimits);
        read = problem.isEmpty();
        if (beyondLimits)
            refusal = problem;
    }
    QVariant resource;
    if (read)
        resource = type == ImageResource ? decodeImage(bytes, &refusal) : QVariant(bytes);
    if (!resource.isNull())
    {
        addResource(type, name, resource); // kept: the layout asks again
        return resource;
    }
    QStringList& list = refusal.isEmpty() ? m_missingResources : m_refusedResources;
    const QString entry = refusal.isEmpty() ? shown : QStringLiteral("%1: %2").arg(shown, refusal);
    if (!list.contains(entry))
        list.append(entry);
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
