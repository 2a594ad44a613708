#include "commandline.h"

#include "appinfo.h"

#include "qutils/appsettings.h"

#include <functional>

namespace cli
{

namespace
{

// One option of a command: its spellings, whether a value follows, and where
// the value goes.
struct SOption
{
    QStringList names;
    bool takesValue;
    std::function<QString(SCommandLine&, const QString&)> apply; // returns an error text or ""
};

QString storeText(QString& target, const QString& value)
{
    target = value;
    return QString();
}

QString storeCount(int& target, const QString& option, const QString& value, int maximum)
{
    bool ok = false;
    const int n = value.toInt(&ok, 10);
    if (!ok || n < 1 || n > maximum)
        return QStringLiteral("%1 needs a whole number from 1 to %2, not '%3'")
            .arg(option)
            .arg(maximum)
            .arg(value);
    target = n;
    return QString();
}

// "K/N": shard K (1 to N) of N.
QString storeShard(SCommandLine& c, const QString& value)
{
    const QStringList parts = value.split(QLatin1Char('/'));
    bool numberOk = false;
    bool countOk = false;
    const int number = parts.size() == 2 ? parts.at(0).toInt(&numberOk, 10) : 0;
    const int count = parts.size() == 2 ? parts.at(1).toInt(&countOk, 10) : 0;
    if (!numberOk || !countOk || count < 1 || number < 1 || number > count)
        return QStringLiteral("--shard needs K/N, shard K of N with K from 1 to N (such as 2/8), not '%1'").arg(value);
    c.shardNumber = number;
    c.shardCount = count;
    return QString();
}

QList<SOption> optionsFor(ECommand command)
{
    const SOption recursive{{QStringLiteral("-r"), QStringLiteral("--recursive")},
                            false,
                            [](SCommandLine& c, const QString&)
                            {
                                c.recursive = true;
                                return QString();
                            }};
    // Options analyze and validate share.
    const SOption threads{{QStringLiteral("--threads")},
                          true,
                          [](SCommandLine& c, const QString& v)
                          { return storeCount(c.threads, QStringLiteral("--threads"), v, 1024); }};
    const SOption json{{QStringLiteral("--json")},
                       true,
                       [](SCommandLine& c, const QString& v) { return storeText(c.jsonFile, v); }};
    const SOption report{{QStringLiteral("--report")},
                         true,
                         [](SCommandLine& c, const QString& v) { return storeText(c.reportFile, v); }};
    const SOption scaleSearch{{QStringLiteral("--scale-search")},
                              true,
                              [](SCommandLine& c, const QString& v)
                              {
                                  if (!qutils::CAppSettings::isScaleSearchValue(v))
                                      return QStringLiteral("--scale-search needs full, sized or off, not '%1'").arg(v);
                                  return storeText(c.scaleSearch, v);
                              }};
    // Options analyze and merge share (the outputs and the report's heading).
    const SOption csv{{QStringLiteral("--csv")},
                      true,
                      [](SCommandLine& c, const QString& v) { return storeText(c.csvFile, v); }};
    const SOption caseNumber{{QStringLiteral("--case")},
                             true,
                             [](SCommandLine& c, const QString& v) { return storeText(c.caseNumber, v); }};
    const SOption examiner{{QStringLiteral("--examiner")},
                           true,
                           [](SCommandLine& c, const QString& v) { return storeText(c.examiner, v); }};
    const SOption notes{{QStringLiteral("--notes")},
                        true,
                        [](SCommandLine& c, const QString& v) { return storeText(c.notes, v); }};
    // For every command that matches a list of photos.
    const SOption shard{{QStringLiteral("--shard")}, true, storeShard};
    switch (command)
    {
    case ECommand::Learn:
        return {
            {{QStringLiteral("-o"), QStringLiteral("--output")},
             true,
             [](SCommandLine& c, const QString& v) { return storeText(c.fingerprintFile, v); }},
            recursive,
            {{QStringLiteral("--limit")},
             true,
             [](SCommandLine& c, const QString& v)
             { return storeCount(c.limit, QStringLiteral("--limit"), v, MaximumReferencePhotos); }},
        };
    case ECommand::Analyze:
        return {
            {{QStringLiteral("-f"), QStringLiteral("--fingerprint")},
             true,
             [](SCommandLine& c, const QString& v) { return storeText(c.fingerprintFile, v); }},
            recursive,
            {{QStringLiteral("--skip-different-camera")},
             false,
             [](SCommandLine& c, const QString&)
             {
                 c.skipDifferentCamera = true;
                 return QString();
             }},
            threads,
            scaleSearch,
            json,
            csv,
            report,
            caseNumber,
            examiner,
            notes,
            shard,
        };
    case ECommand::Merge:
        return {json, csv, report, caseNumber, examiner, notes};
    case ECommand::Info:
        return {
            {{QStringLiteral("--json")},
             false,
             [](SCommandLine& c, const QString&)
             {
                 c.json = true;
                 return QString();
             }},
        };
    case ECommand::Validate:
        return {
            {{QStringLiteral("--variants")},
             false,
             [](SCommandLine& c, const QString&)
             {
                 c.variants = true;
                 return QString();
             }},
            threads,
            scaleSearch,
            json,
            report,
        };
    case ECommand::Identify:
        return {
            {{QStringLiteral("--library")},
             true,
             [](SCommandLine& c, const QString& v) { return storeText(c.libraryFolder, v); }},
            recursive, threads, scaleSearch, json, csv, report, caseNumber, examiner, notes, shard,
        };
    case ECommand::Demo:
        return {
            {{QStringLiteral("--out")},
             true,
             [](SCommandLine& c, const QString& v) { return storeText(c.outDir, v); }},
        };
    default:
        return {};
    }
}

SCommandLine failed(const QString& error)
{
    SCommandLine result;
    result.error = error;
    return result;
}

// The rules a command's arguments must meet once all are read.
QString checkComplete(const QString& name, SCommandLine& c)
{
    switch (c.command)
    {
    case ECommand::Learn:
        if (c.fingerprintFile.isEmpty())
            return QStringLiteral("'learn' needs -o FILE.fnp: where to save the fingerprint");
        if (c.paths.isEmpty())
            return QStringLiteral("'learn' needs at least one PATH: reference photos or folders");
        return QString();
    case ECommand::Analyze:
        if (c.fingerprintFile.isEmpty())
            return QStringLiteral("'analyze' needs -f FILE.fnp: the fingerprint to match against");
        if (c.paths.isEmpty())
            return QStringLiteral("'analyze' needs at least one PATH: questioned photos or folders");
        if (!c.csvFile.isEmpty() && c.csvFile == c.jsonFile)
            return QStringLiteral("--json and --csv cannot write to the same file");
        return QString();
    case ECommand::Identify:
        if (c.libraryFolder.isEmpty())
            return QStringLiteral("'identify' needs --library DIR: the folder of fingerprint files");
        if (c.paths.isEmpty())
            return QStringLiteral("'identify' needs at least one PATH: questioned photos or folders");
        if (!c.csvFile.isEmpty() && c.csvFile == c.jsonFile)
            return QStringLiteral("--json and --csv cannot write to the same file");
        return QString();
    case ECommand::Info:
        if (c.paths.size() != 1)
            return QStringLiteral("'info' needs exactly one FILE.fnp");
        c.fingerprintFile = c.paths.takeFirst();
        return QString();
    case ECommand::Validate:
        if (c.paths.size() != 1)
            return QStringLiteral("'validate' needs exactly one SET_DIR: a folder with a folder per device");
        // The results go to standard output already; the lines must not mix.
        if (c.jsonFile == QLatin1String("-"))
            return QStringLiteral("'validate --json' needs a FILE");
        return QString();
    case ECommand::Merge:
        if (c.paths.isEmpty())
            return QStringLiteral("'merge' needs at least one SHARD.jsonl: the --json files of the shards");
        if (!c.csvFile.isEmpty() && c.csvFile == c.jsonFile)
            return QStringLiteral("--json and --csv cannot write to the same file");
        return QString();
    case ECommand::Demo:
        if (!c.paths.isEmpty())
            return QStringLiteral("'demo' takes no PATH, only --out DIR");
        return QString();
    default:
        return QStringLiteral("unexpected command '%1'").arg(name);
    }
}

} // namespace

SCommandLine parseCommandLine(const QStringList& arguments)
{
    SCommandLine result;
    if (arguments.isEmpty())
        return failed(QStringLiteral("no command given"));

    const QString name = arguments.first();
    if (name == QLatin1String("--help") || name == QLatin1String("-h") || name == QLatin1String("help"))
    {
        result.command = ECommand::Help;
        return result;
    }
    if (name == QLatin1String("--version"))
    {
        result.command = ECommand::Version;
        return result;
    }
    if (name == QLatin1String("learn"))
        result.command = ECommand::Learn;
    else if (name == QLatin1String("analyze"))
        result.command = ECommand::Analyze;
    else if (name == QLatin1String("info"))
        result.command = ECommand::Info;
    else if (name == QLatin1String("demo"))
        result.command = ECommand::Demo;
    else if (name == QLatin1String("validate"))
        result.command = ECommand::Validate;
    else if (name == QLatin1String("merge"))
        result.command = ECommand::Merge;
    else if (name == QLatin1String("identify"))
        result.command = ECommand::Identify;
    else if (name.startsWith(QLatin1Char('-')))
        return failed(QStringLiteral(
            "unknown option '%1'; a command (learn, analyze, identify, merge, info, demo, validate) comes first")
                .arg(name));
    else
        return failed(QStringLiteral("unknown command '%1'").arg(name));

    const QList<SOption> options = optionsFor(result.command);
    bool optionsEnded = false;
    for (int i = 1; i < arguments.size(); ++i)
    {
        const QString argument = arguments.at(i);
        // "-" alone is a path (or the value of --json), never an option.
        if (optionsEnded || !argument.startsWith(QLatin1Char('-')) || argument == QLatin1String("-"))
        {
            result.paths.append(argument);
            continue;
        }
        if (argument == QLatin1String("--"))
        {
            optionsEnded = true;
            continue;
        }
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h"))
        {
            SCommandLine help;
            help.command = ECommand::Help;
            return help;
        }

        // "--name=value" as well as "--name value".
        QString optionName = argument;
        QString inlineValue;
        bool hasInlineValue = false;
        const int equals = argument.indexOf(QLatin1Char('='));
        if (argument.startsWith(QLatin1String("--")) && equals > 2)
        {
            optionName = argument.left(equals);
            inlineValue = argument.mid(equals + 1);
            hasInlineValue = true;
        }
        const SOption* option = nullptr;
        for (const SOption& candidate : options)
            if (candidate.names.contains(optionName))
                option = &candidate;
        if (!option)
            return failed(QStringLiteral("unknown option '%1' for '%2'").arg(optionName, name));

        QString value;
        if (option->takesValue)
        {
            if (hasInlineValue)
                value = inlineValue;
            else if (i + 1 < arguments.size())
                value = arguments.at(++i);
            else
                return failed(QStringLiteral("option '%1' needs a value").arg(optionName));
            if (value.isEmpty())
                return failed(QStringLiteral("option '%1' needs a value").arg(optionName));
        }
        else if (hasInlineValue)
        {
            return failed(QStringLiteral("option '%1' takes no value").arg(optionName));
        }
        const QString error = option->apply(result, value);
        if (!error.isEmpty())
            return failed(error);
    }

    const QString error = checkComplete(name, result);
    if (!error.isEmpty())
        return failed(error);
    if (!result.scaleSearch.isEmpty())
    {
        qutils::CAppSettings::applyScaleSearch(result.scaleSearch);
    }
    else
    {
        // An inherited value the engine would refuse fails every photo: say so once, now.
        const QString inherited = qEnvironmentVariable("LUMICREST_SCALE_SEARCH");
        if (!inherited.isEmpty() && !qutils::CAppSettings::isScaleSearchValue(inherited))
            return failed(QStringLiteral("the environment's LUMICREST_SCALE_SEARCH needs full, sized or off, not '%1'")
                              .arg(inherited));
    }
    return result;
}

QString helpText()
{
    return QStringLiteral(
        "Usage:\n"
        "  quorvex-cli learn   -o FILE.fnp [--recursive] [--limit N] PATH...\n"
        "  quorvex-cli analyze -f FILE.fnp [--recursive] [--skip-different-camera] [--threads N]\n"
        "                      [--scale-search full|sized|off] [--json FILE|-] [--csv FILE]\n"
        "                      [--report FILE.pdf] [--case TEXT] [--examiner TEXT]\n"
        "                      [--notes TEXT] [--shard K/N] PATH...\n"
        "  quorvex-cli merge   [--json FILE|-] [--csv FILE] [--report FILE.pdf] [--case TEXT]\n"
        "                      [--examiner TEXT] [--notes TEXT] SHARD.jsonl...\n"
        "  quorvex-cli identify --library DIR [--recursive] [--threads N]\n"
        "                      [--scale-search full|sized|off] [--json FILE|-] [--csv FILE]\n"
        "                      [--report FILE.pdf] [--case TEXT] [--examiner TEXT]\n"
        "                      [--notes TEXT] [--shard K/N] PATH...\n"
        "  quorvex-cli info    [--json] FILE.fnp\n"
        "  quorvex-cli demo    [--out DIR]\n"
        "  quorvex-cli validate [--variants] [--json FILE] [--report FILE.pdf] [--threads N]\n"
        "                      [--scale-search full|sized|off] SET_DIR\n"
        "  quorvex-cli --help | --version\n"
        "\n"
        "Tells which camera took a photo from the sensor's noise pattern: 'learn' builds a\n"
        "camera's fingerprint from its photos, 'analyze' matches questioned photos against it.\n"
        "\n"
        "PATH is a photo file or a folder. Folders contribute their JPEG, TIFF, BMP and PNG\n"
        "files (*.jpg *.jpeg *.jpe *.tif *.tiff *.bmp *.png, in either case) sorted by name;\n"
        "paths are taken in the order given. A file with a photo's name that cannot be\n"
        "analyzed (not a regular file, a name that is not valid UTF-8, a path too long)\n"
        "is reported as not processed with the reason, after the photos.\n"
        "No output file may be an input photo, the fingerprint, another output, or a\n"
        "device, pipe, socket or folder; an existing output file is replaced only by the\n"
        "same kind of output ('learn -o' only a fingerprint, --report only a PDF, --csv\n"
        "and --json only an earlier CSV or JSON-lines result).\n"
        "\n"
        "learn: builds a fingerprint from reference photos of one camera (at least 3; at most\n"
        "200 are used) and saves it. Prints each photo's NMSE as it goes (how much the\n"
        "fingerprint still changed; falling values mean it settles), then the fingerprint's\n"
        "properties.\n"
        "  -o, --output FILE.fnp      where to save the fingerprint (required)\n"
        "  -r, --recursive            include the photos in subfolders of folder PATHs\n"
        "  --limit N                  use only the first N photos (1 to 200); without it more\n"
        "                             than 200 photos are cut to the first 200 with a warning\n"
        "\n"
        "analyze: matches every photo against a fingerprint on all cores, prints one line per\n"
        "photo in input order (class, probability, PCE, path) and a summary.\n"
        "  -f, --fingerprint FILE.fnp the fingerprint to match against (required)\n"
        "  -r, --recursive            include the photos in subfolders of folder PATHs\n"
        "  --skip-different-camera    do not match photos whose EXIF make or model differs from\n"
        "                             the fingerprint's (status inconsistentmetadata)\n"
        "  --threads N                match N photos at a time (default: one per core)\n"
        "  --scale-search full|sized|off  photos resized from the camera's image: match at the\n"
        "                             scale their size implies (sized, default), also search\n"
        "                             every scale for resized crops (full: slow, experimental),\n"
        "                             or match at the fingerprint's size only (off)\n"
        "  --json FILE|-              write one JSON object per photo and line, in input order,\n"
        "                             to FILE, or to standard output for '-' (then the table is\n"
        "                             left out and the summary goes to standard error); keys:\n"
        "                             path (absolute), matched, compared (false when the photo\n"
        "                             was never compared with the fingerprint), probability,\n"
        "                             correlation, pce, scale (the photo's size as a factor of\n"
        "                             the fingerprint's image), status (lower-case key), class,\n"
        "                             reason (why a photo was not processed or not compared),\n"
        "                             sha256 (of the photo file as analysed; null when unread),\n"
        "                             index (the photo's position in the whole input list,\n"
        "                             from 0, before --shard), total (the whole list's length),\n"
        "                             fingerprint (absolute), orientation (the clockwise turn\n"
        "                             at which the photo lined up with the fingerprint)\n"
        "  --csv FILE                 write the same columns as CSV with a header line\n"
        "  --report FILE.pdf          also write a PDF report of every photo\n"
        "  --case, --examiner, --notes TEXT\n"
        "                             the case number, examiner and notes shown at the top of\n"
        "                             the report (each optional)\n"
        "  --shard K/N                analyze only shard K of N (K from 1 to N) of the input\n"
        "                             list: the photos at positions i (from 0, in the order\n"
        "                             above, the files that cannot be analyzed last) with\n"
        "                             i mod N = K-1; run every shard, then 'merge' their --json\n"
        "                             files. Progress and the summary count the shard's photos\n"
        "Classes: very high (probability >= 0.999), high (>= 0.995), medium (>= 0.99), low\n"
        "(any other match), not found (no match, or the photo failed: see its status),\n"
        "not compared (the photo's size fits the fingerprint in no way tried, status\n"
        "imagefingerprintinconsistentsize, or --skip-different-camera skipped it: never a\n"
        "finding that another camera took it), not processed (interrupted before the photo\n"
        "was analyzed).\n"
        "PCE is the peak-to-correlation energy; 60 or more counts as a match.\n"
        "\n"
        "merge: joins the --json files of the shards of one 'analyze' or 'identify' run into\n"
        "what the whole run would have written: the table and summary (without the time),\n"
        "--json and --csv byte for byte, and --report (from the fingerprint file or library\n"
        "folder the lines name, which must still be there). Refuses lines of different runs\n"
        "(another total, fingerprint or library), a position no shard has (naming the\n"
        "positions), one position with two different results, and any line not written by\n"
        "'analyze --json' or 'identify --json' (naming file and line).\n"
        "The paths in the table are relative to the working folder when below it.\n"
        "  --json FILE|-, --csv FILE, --report FILE.pdf, --case, --examiner, --notes\n"
        "                             as for analyze\n"
        "identify: which of many cameras took each photo. Compares every photo with every\n"
        "fingerprint file (.fnp) in DIR and its subfolders and prints, per photo in input\n"
        "order, the matching camera(s) (fingerprint file, class, PCE), 'no camera in the\n"
        "library' (compared with at least one fingerprint, none matched; the nearest one is\n"
        "named), 'not compared: <reason>' (its size fits no fingerprint), or why it failed;\n"
        "then the counts. Comparing one photo with N fingerprints multiplies the chance of a\n"
        "chance match, so the PCE is corrected for every fingerprint and position tried,\n"
        "keeping the false-alarm rate per photo that of a single comparison. Fingerprint\n"
        "files that cannot be used are named in a warning and left out; with none usable\n"
        "the command fails. Digests of the fingerprints are saved beside them (<file>.digest)\n"
        "where the folder can be written, so later runs start faster.\n"
        "  --library DIR              the folder of fingerprint files (required)\n"
        "  -r, --recursive, --threads N, --scale-search, --report FILE.pdf, --case,\n"
        "  --examiner, --notes        as for analyze\n"
        "  --json FILE|-              one JSON object per photo and line; keys: path, sha256,\n"
        "                             compared (fingerprints compared), matches (strongest\n"
        "                             first; each fingerprint, pce, probability, class, scale,\n"
        "                             orientation), status, reason, best (the nearest\n"
        "                             fingerprint, matching or not, the same keys; null when\n"
        "                             none was compared), index (0-based place of the photo in\n"
        "                             the input), total (photos in the input) and library (the\n"
        "                             library's folder, absolute)\n"
        "  --csv FILE                 one row per photo and matching fingerprint (one row with\n"
        "                             an empty fingerprint when none matched)\n"
        "\n"
        "info: prints the properties of a fingerprint file.\n"
        "  --json                     as one JSON object keyed by property\n"
        "\n"
        "demo: makes a sample case with simulated cameras (three cameras, two of the same make\n"
        "and model), learns camera A, analyzes a mixed folder and shows every photo's class\n"
        "next to the truth.\n"
        "  --out DIR                  where to put the photos and the fingerprint (a new or empty\n"
        "                             folder; default: a new folder in the temporary folder)\n"
        "\n"
        "validate: a validation study on photos whose camera is known. SET_DIR holds a folder\n"
        "per device, each with reference/ (photos to learn from) and questioned/ (photos to\n"
        "match). Learns every device (one whose learning fails is reported and left out),\n"
        "matches every questioned photo against every fingerprint on all cores and prints\n"
        "the confusion table (fingerprint x photos' device: matched/compared), the true- and\n"
        "false-positive rates at PCE 60, the PCE distribution of true and false pairs, the\n"
        "AUC and the weakest true and strongest false pairs. Pairs the engine could not\n"
        "compare are counted as not compared, never as misses. The last line sums it up:\n"
        "'true pairs matched T/N, false pairs matched F/M, weakest true PCE x, strongest\n"
        "false PCE y'. Exits 0 when the study ran, whatever its results.\n"
        "  --variants                 also match changed copies of the questioned photos, made\n"
        "                             in a temporary folder: rotated-90 (pixels, clockwise),\n"
        "                             exif-rotated (only the EXIF orientation tag), crop-1600x1200\n"
        "                             and crop-1024x768 (a quarter of the spare width from the\n"
        "                             left, a third of the spare height from the top), jpeg-75\n"
        "                             (recompressed at quality 75), scaled-80 and scaled-50\n"
        "                             (area-averaged); geometric copies are saved as JPEG at\n"
        "                             quality 95. Results are shown per variant\n"
        "  --threads N                match N photos at a time (default: one per core)\n"
        "  --scale-search full|sized|off  as for analyze\n"
        "  --json FILE                write one JSON object per pair and line; keys:\n"
        "                             fingerprint (device), photo (path of the original),\n"
        "                             variant, true_pair, pce, probability, matched, status,\n"
        "                             reason (why a pair was not compared, else empty)\n"
        "  --report FILE.pdf          also write a PDF validation report with the tables, PCE\n"
        "                             histograms and the ROC curve\n"
        "\n"
        "  -h, --help                 show this help\n"
        "  --version                  show the version\n"
        "\n"
        "Progress goes to standard error: one updating line on a terminal, otherwise a line\n"
        "every few seconds. Ctrl-C (or SIGTERM) during 'analyze' or 'identify' stops after the\n"
        "photos being analyzed and writes the results so far, the rest as not processed; during\n"
        "'validate' it stops after the photos being matched (or the device being learned) and\n"
        "removes the temporary files.\n"
        "\n"
        "Exit codes: 0 done, 1 usage error, 2 failure, 130 interrupted.\n");
}

QString versionText()
{
    return QStringLiteral("quorvex-cli ") + SAppInfo::forMode(ERunMode::Windowed).version;
}

} // namespace cli
