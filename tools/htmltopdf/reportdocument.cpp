#include "reportdocument.h"

#include <QAbstractTextDocumentLayout>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFontDatabase>
#include <QSet>
#include <QTextCodec>
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

void CReportDocument::setSource(const QString& html, const QString& baseFolder)
{
    m_missingResources.clear();
    setBaseUrl(QUrl::fromLocalFile(QDir(baseFolder).absolutePath() + QLatin1Char('/')));
    setHtml(html);
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
