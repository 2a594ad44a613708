#pragma once

#include <QString>
#include <QStringList>

namespace htmltopdf
{

// Header or footer texts of every body page. "[page]" and "[topage]" are
// replaced; a tab separates parts spread across the line.
struct SBandTexts
{
    QString left;
    QString center;
    QString right;
    QString htmlFile; // local path of an HTML file shown in the band, or empty
};

// What the command line asks for; every file is a local path by now.
// error is set when the arguments cannot be understood.
struct SOptions
{
    QString error;

    SBandTexts header;
    SBandTexts footer;
    QString coverFile;
    QString tocStyleFile; // only its presence matters: it turns the contents page on
    bool tableOfContents = false;
    QString outputFile;
    QString inputFile;
};

// Parses the arguments without the program's name. Options may come in any
// order; each takes one value.
SOptions parseOptions(const QStringList& arguments);

// A percent-encoded "file:" URL or a plain local path, as a local path.
// Empty, with error set, for other schemes or a URL naming no local file.
QString localPathFromArgument(const QString& argument, QString* error);

// One line naming every option.
QString usageText();

} // namespace htmltopdf
