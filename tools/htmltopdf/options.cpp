#include "options.h"

#include <QRegularExpression>
#include <QUrl>

#include <functional>

namespace htmltopdf
{

namespace
{

// Where an option's value goes; returns an error text or "".
using TApply = std::function<QString(SOptions&, const QString&)>;

TApply storeText(QString SBandTexts::*member, SBandTexts SOptions::*band)
{
    return [member, band](SOptions& o, const QString& value)
    {
        (o.*band).*member = value;
        return QString();
    };
}

TApply storePath(QString SBandTexts::*member, SBandTexts SOptions::*band)
{
    return [member, band](SOptions& o, const QString& value)
    {
        QString error;
        (o.*band).*member = localPathFromArgument(value, &error);
        return error;
    };
}

TApply storePath(QString SOptions::*member)
{
    return [member](SOptions& o, const QString& value)
    {
        QString error;
        o.*member = localPathFromArgument(value, &error);
        return error;
    };
}

const QList<QPair<QString, TApply>>& optionTable()
{
    static const QList<QPair<QString, TApply>> table = {
        {QStringLiteral("--header-text-left"), storeText(&SBandTexts::left, &SOptions::header)},
        {QStringLiteral("--header-text-center"), storeText(&SBandTexts::center, &SOptions::header)},
        {QStringLiteral("--header-text-right"), storeText(&SBandTexts::right, &SOptions::header)},
        {QStringLiteral("--header-text-html"), storePath(&SBandTexts::htmlFile, &SOptions::header)},
        {QStringLiteral("--footer-text-left"), storeText(&SBandTexts::left, &SOptions::footer)},
        {QStringLiteral("--footer-text-center"), storeText(&SBandTexts::center, &SOptions::footer)},
        {QStringLiteral("--footer-text-right"), storeText(&SBandTexts::right, &SOptions::footer)},
        {QStringLiteral("--footer-text-html"), storePath(&SBandTexts::htmlFile, &SOptions::footer)},
        {QStringLiteral("--cover-url"), storePath(&SOptions::coverFile)},
        {QStringLiteral("--toc-xsl"),
         [](SOptions& o, const QString& value)
         {
             QString error;
             o.tocStyleFile = localPathFromArgument(value, &error);
             o.tableOfContents = error.isEmpty();
             return error;
         }},
        // Accepted for the caller's sake: there are no scripts to wait for.
        {QStringLiteral("--javascript-delay"),
         [](SOptions&, const QString& value)
         {
             bool ok = false;
             value.toInt(&ok);
             return ok ? QString()
                       : QStringLiteral("--javascript-delay needs a whole number, not '%1'").arg(value);
         }},
        {QStringLiteral("-o"), storePath(&SOptions::outputFile)},
    };
    return table;
}

} // namespace

QString localPathFromArgument(const QString& argument, QString* error)
{
    if (argument.isEmpty())
    {
        *error = QStringLiteral("empty file name");
        return QString();
    }
    // A scheme has two letters at least, so "C:\report.html" stays a path.
    static const QRegularExpression scheme(QStringLiteral("^[A-Za-z][A-Za-z0-9+.-]+:"));
    if (!scheme.match(argument).hasMatch())
        return argument;
    const QUrl url(argument, QUrl::StrictMode);
    if (!url.isValid() || !url.isLocalFile() || url.toLocalFile().isEmpty())
    {
        *error = QStringLiteral("'%1' is not a local file").arg(argument);
        return QString();
    }
    return url.toLocalFile();
}

SOptions parseOptions(const QStringList& arguments)
{
    SOptions options;
    QStringList positional;
    for (int i = 0; i < arguments.size(); ++i)
    {
        const QString& argument = arguments.at(i);
        if (argument.startsWith(QLatin1Char('-')) && argument.size() > 1)
        {
            const auto& table = optionTable();
            const auto it = std::find_if(table.cbegin(), table.cend(),
                                         [&argument](const QPair<QString, TApply>& entry)
                                         { return entry.first == argument; });
            if (it == table.cend())
            {
                options.error = QStringLiteral("unknown option %1").arg(argument);
                return options;
            }
            if (i + 1 >= arguments.size())
            {
                options.error = QStringLiteral("%1 needs a value").arg(argument);
                return options;
            }
            const QString error = it->second(options, arguments.at(++i));
            if (!error.isEmpty())
            {
                options.error = QStringLiteral("%1: %2").arg(argument, error);
                return options;
            }
            continue;
        }
        positional.append(argument);
    }
    if (options.outputFile.isEmpty())
        options.error = QStringLiteral("no output file (-o)");
    else if (positional.isEmpty())
        options.error = QStringLiteral("no input file");
    else if (positional.size() > 1)
        options.error = QStringLiteral("one input file only, not %1").arg(positional.size());
    else
    {
        QString error;
        options.inputFile = localPathFromArgument(positional.first(), &error);
        if (!error.isEmpty())
            options.error = QStringLiteral("input: %1").arg(error);
    }
    return options;
}

QString usageText()
{
    return QStringLiteral(
        "Usage: HtmlToPdf [--header-text-left TEXT] [--header-text-center TEXT] [--header-text-right TEXT] "
        "[--header-text-html URL] [--footer-text-left TEXT] [--footer-text-center TEXT] "
        "[--footer-text-right TEXT] [--footer-text-html URL] [--cover-url URL] [--toc-xsl FILE] "
        "[--javascript-delay MS] -o OUTPUT_FILE_URL INPUT_FILE_URL");
}

} // namespace htmltopdf
