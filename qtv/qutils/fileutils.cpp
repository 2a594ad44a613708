#include "fileutils.h"
#include "platform.h"

#include "platform.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDate>
#include <QDateTime>
#include <QFileInfo>
#include <QHash>
#include <QLocale>
#include <QSizeF>
#include <QStringList>
#include <QTime>

#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <mutex>
#include <string>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // exiv2 0.27 hands out std::auto_ptr
#endif
#include <exiv2/exiv2.hpp>

// Thread safety. exiv2 0.27 keeps process-wide state that it does not protect:
// the log level and handler, and the XMP toolkit with its namespace registry,
// which decoding a photo's XMP packet may change. All our exiv2 calls are
// therefore serialised by one mutex; a read only walks the file's header
// segments, so the lock is short. The one-time set-up (muting the log, starting
// the XMP toolkit with a lock for its registry) runs exactly once.
//
// The engine library is a separate shared object that calls exiv2 under a
// mutex of its own, so the two can use exiv2 at the same time. That is safe
// enough: both only read, both set the same log level, and after the toolkit
// has been initialised once the remaining shared state is the namespace
// registry, which is guarded by the lock passed to the toolkit when we are the
// first to initialise it.
//
// exiv2 maps TIFF files into memory; a file cut by another process meanwhile
// would kill the whole process (SIGBUS) when the lost pages are touched. So it
// only ever parses a copy of the file's first kMaxExifBytes read into our
// memory, and only from a regular file (a FIFO would block the read forever).

namespace qutils
{
namespace
{

// EXIF lies in the first kilobytes of a JPEG or PNG; a TIFF whose directory
// lies beyond this reads as one without EXIF.
constexpr qint64 kMaxExifBytes = qint64(64) << 20;

using P = EXIFMetadataProperty;
using LensInfo = EXIFInfo::LensInfo_t;

const char* const kContext = "EXIFInfo";

struct SPropertyDef
{
    P id;
    const char* key;
    const char* name;
};

// In registration order.
const SPropertyDef kProperties[] = {
    {P::Invalid, "Invalid", QT_TRANSLATE_NOOP("EXIFInfo", "Invalid")},
    {P::Resolution, "Resolution", QT_TRANSLATE_NOOP("EXIFInfo", "Resolution")},
    {P::Width, "Width", QT_TRANSLATE_NOOP("EXIFInfo", "Width")},
    {P::Height, "Height", QT_TRANSLATE_NOOP("EXIFInfo", "Height")},
    {P::CameraManufacturer, "CameraManufacturer", QT_TRANSLATE_NOOP("EXIFInfo", "Manufacturer")},
    {P::CameraModel, "CameraModel", QT_TRANSLATE_NOOP("EXIFInfo", "Model")},
    {P::Copyright, "Copyright", QT_TRANSLATE_NOOP("EXIFInfo", "Copyright")},
    {P::Description, "Description", QT_TRANSLATE_NOOP("EXIFInfo", "Description")},
    {P::Software, "Software", QT_TRANSLATE_NOOP("EXIFInfo", "Software")},
    {P::DateTimeDigitized, "DateTimeDigitized", QT_TRANSLATE_NOOP("EXIFInfo", "Date of Digitization")},
    {P::DateTimeOriginal, "DateTimeOriginal", QT_TRANSLATE_NOOP("EXIFInfo", "Date of Generation")},
    {P::ExposureBiasValue, "ExposureBiasValue", QT_TRANSLATE_NOOP("EXIFInfo", "Exposure Bias")},
    {P::ExposureTime, "ExposureTime", QT_TRANSLATE_NOOP("EXIFInfo", "Exposure Time")},
    {P::FocalLength, "FocalLength", QT_TRANSLATE_NOOP("EXIFInfo", "Focal Length")},
    {P::ISOSpeedRatings, "ISOSpeedRatings", QT_TRANSLATE_NOOP("EXIFInfo", "ISO Speed Rating")},
    {P::ShutterSpeedValue, "ShutterSpeedValue", QT_TRANSLATE_NOOP("EXIFInfo", "Shutter Speed")},
    {P::SubjectDistance, "SubjectDistance", QT_TRANSLATE_NOOP("EXIFInfo", "Subject Distance")},
    {P::GPSLatitude, "GPSLatitude", QT_TRANSLATE_NOOP("EXIFInfo", "GPS Latitude")},
    {P::GPSLongitude, "GPSLongitude", QT_TRANSLATE_NOOP("EXIFInfo", "GPS Longitude")},
    {P::GPSAltitude, "GPSAltitude", QT_TRANSLATE_NOOP("EXIFInfo", "GPS Altitude")},
    {P::GPSDateTime, "GPSDateTime", QT_TRANSLATE_NOOP("EXIFInfo", "GPS Date Time")},
    {P::FNumber, "FNumber", QT_TRANSLATE_NOOP("EXIFInfo", "F-number")},
    {P::Flash, "Flash", QT_TRANSLATE_NOOP("EXIFInfo", "Flash")},
    {P::MeteringMode, "MeteringMode", QT_TRANSLATE_NOOP("EXIFInfo", "Metering Mode")},
    {P::Orientation, "Orientation", QT_TRANSLATE_NOOP("EXIFInfo", "Orientation")},
    {P::Format, "Format", QT_TRANSLATE_NOOP("EXIFInfo", "Format")},
    {P::LensInfo, "LensInfo", QT_TRANSLATE_NOOP("EXIFInfo", "Lens Info")},
};

struct SRegistry
{
    QList<P> order;
    QHash<int, QString> keys; // lower-cased
    QHash<int, const char*> names;
    QHash<QString, P> byKey;
};

const SRegistry& registry()
{
    static const SRegistry instance = [] {
        SRegistry r;
        for (const SPropertyDef& def : kProperties)
        {
            const QString key = QString::fromLatin1(def.key).toLower();
            r.order.append(def.id);
            r.keys.insert(static_cast<int>(def.id), key);
            r.names.insert(static_cast<int>(def.id), def.name);
            r.byKey.insert(key, def.id);
        }
        return r;
    }();
    return instance;
}

QString tr(const char* text)
{
    return QCoreApplication::translate(kContext, text);
}

// The lens record travels in QVariants (queued signals, property maps that
// are compared), so it is registered with an equality comparator.
void registerMetaTypes()
{
    static const bool registered = [] {
        qRegisterMetaType<LensInfo>("EXIFInfo::LensInfo_t");
        QMetaType::registerEqualsComparator<LensInfo>();
        return true;
    }();
    Q_UNUSED(registered)
}

// ---- exiv2 set-up -----------------------------------------------------------

std::mutex& exiv2Mutex()
{
    static std::mutex mutex;
    return mutex;
}

// Guards the XMP toolkit's namespace registry; the toolkit may lock it again
// while it holds it, hence recursive.
std::recursive_mutex& xmpRegistryMutex()
{
    static std::recursive_mutex mutex;
    return mutex;
}

void lockXmpRegistry(void* data, bool lock)
{
    auto* mutex = static_cast<std::recursive_mutex*>(data);
    if (lock)
        mutex->lock();
    else
        mutex->unlock();
}

std::once_flag g_exiv2Once;

// Call with exiv2Mutex() held.
void initialiseExiv2()
{
    std::call_once(g_exiv2Once, [] {
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
        Exiv2::XmpParser::initialize(&lockXmpRegistry, &xmpRegistryMutex());
    });
}

// ---- reading values ---------------------------------------------------------

const Exiv2::Exifdatum* findDatum(const Exiv2::ExifData& exif, const char* key)
{
    try
    {
        const auto it = exif.findKey(Exiv2::ExifKey(key));
        if (it == exif.end() || it->count() <= 0)
            return nullptr;
        return &*it;
    }
    catch (const Exiv2::AnyError&)
    {
        return nullptr; // a key this exiv2 does not know
    }
}

// Component n of a numeric tag as a double; false when it is missing or is a
// rational with a zero denominator (EXIF writes 0/0 for "unknown").
bool numberAt(const Exiv2::Exifdatum& datum, long n, double& out)
{
    if (n >= datum.count())
        return false;
    const Exiv2::Value& value = datum.value();
    switch (value.typeId())
    {
    case Exiv2::unsignedRational:
    {
        // exiv2 hands unsigned rationals out as signed pairs; the bits are
        // unchanged, so take them back as unsigned (0xFFFFFFFF must stay large).
        const Exiv2::Rational r = value.toRational(n);
        const auto num = static_cast<std::uint32_t>(r.first);
        const auto den = static_cast<std::uint32_t>(r.second);
        if (den == 0)
            return false;
        out = static_cast<double>(num) / static_cast<double>(den);
        return true;
    }
    case Exiv2::signedRational:
    {
        const Exiv2::Rational r = value.toRational(n);
        if (r.second == 0)
            return false;
        out = static_cast<double>(r.first) / static_cast<double>(r.second);
        return true;
    }
    case Exiv2::unsignedByte:
    case Exiv2::unsignedShort:
    case Exiv2::unsignedLong:
    case Exiv2::signedByte:
    case Exiv2::signedShort:
    case Exiv2::signedLong:
    case Exiv2::tiffFloat:
    case Exiv2::tiffDouble:
        out = static_cast<double>(value.toFloat(n));
        return std::isfinite(out);
    default:
        return false;
    }
}

bool numberOf(const Exiv2::ExifData& exif, const char* key, double& out, long n = 0)
{
    const Exiv2::Exifdatum* datum = findDatum(exif, key);
    return datum && numberAt(*datum, n, out);
}

bool integerOf(const Exiv2::ExifData& exif, const char* key, int& out)
{
    double value = 0.0;
    if (!numberOf(exif, key, value) || value < std::numeric_limits<int>::min()
        || value > std::numeric_limits<int>::max())
        return false;
    out = static_cast<int>(std::lround(value));
    return true;
}

// EXIF text is meant to be ASCII; cameras and editors write UTF-8 or Latin-1.
// Cut at the first NUL (a copyright holds "photographer\0editor") and trim.
QString textOf(const Exiv2::ExifData& exif, const char* key)
{
    const Exiv2::Exifdatum* datum = findDatum(exif, key);
    if (!datum)
        return QString();
    const std::string raw = datum->toString();
    const QByteArray bytes = QByteArray::fromStdString(raw.substr(0, raw.find('\0')));
    // Valid UTF-8 survives the round trip; anything else had bytes replaced.
    QString text = QString::fromUtf8(bytes);
    if (text.toUtf8() != bytes)
        text = QString::fromLatin1(bytes);
    return text.trimmed();
}

// "+02:00" or "-05:30" as seconds east of UTC.
bool parseUtcOffset(const QString& text, int& seconds)
{
    if (text.size() != 6 || (text[0] != QLatin1Char('+') && text[0] != QLatin1Char('-'))
        || text[3] != QLatin1Char(':'))
        return false;
    bool okHours = false;
    bool okMinutes = false;
    const int hours = text.mid(1, 2).toInt(&okHours);
    const int minutes = text.mid(4, 2).toInt(&okMinutes);
    if (!okHours || !okMinutes || hours > 14 || minutes > 59)
        return false;
    seconds = (hours * 3600 + minutes * 60) * (text[0] == QLatin1Char('-') ? -1 : 1);
    return true;
}

QDate parseExifDate(const QString& text)
{
    QDate date = QDate::fromString(text.left(10), QStringLiteral("yyyy:MM:dd"));
    if (!date.isValid()) // some editors write the ISO form
        date = QDate::fromString(text.left(10), QStringLiteral("yyyy-MM-dd"));
    return date;
}

// "yyyy:MM:dd hh:mm:ss" in the camera's clock. With the EXIF offset tag the
// time carries that offset; without it, it is taken as local time.
QDateTime parseExifDateTime(const QString& text, const QString& offset)
{
    if (text.size() < 19)
        return QDateTime();
    const QDate date = parseExifDate(text);
    const QTime time = QTime::fromString(text.mid(11, 8), QStringLiteral("hh:mm:ss"));
    if (!date.isValid() || !time.isValid())
        return QDateTime();
    int seconds = 0;
    if (parseUtcOffset(offset, seconds))
        return QDateTime(date, time, Qt::OffsetFromUTC, seconds);
    return QDateTime(date, time, Qt::LocalTime);
}

// Degrees, minutes and seconds with the hemisphere reference; negative for
// south and west. A missing reference counts as north or east.
bool gpsCoordinate(const Exiv2::ExifData& exif, const char* key, const char* refKey,
                   const QChar negativeRef, double limit, double& out)
{
    const Exiv2::Exifdatum* datum = findDatum(exif, key);
    if (!datum)
        return false;
    double parts[3] = {0.0, 0.0, 0.0};
    for (long i = 0; i < 3 && i < datum->count(); ++i)
    {
        if (!numberAt(*datum, i, parts[i]) || parts[i] < 0.0)
            return false;
    }
    const double degrees = parts[0] + parts[1] / 60.0 + parts[2] / 3600.0;
    if (degrees > limit)
        return false;
    const QString ref = textOf(exif, refKey).toUpper();
    out = ref.startsWith(negativeRef) ? -degrees : degrees;
    return true;
}

QDateTime gpsDateTime(const Exiv2::ExifData& exif)
{
    const QDate date = parseExifDate(textOf(exif, "Exif.GPSInfo.GPSDateStamp"));
    const Exiv2::Exifdatum* stamp = findDatum(exif, "Exif.GPSInfo.GPSTimeStamp");
    if (!date.isValid() || !stamp || stamp->count() < 3)
        return QDateTime();
    double hms[3] = {0.0, 0.0, 0.0};
    for (long i = 0; i < 3; ++i)
    {
        if (!numberAt(*stamp, i, hms[i]) || hms[i] < 0.0)
            return QDateTime();
    }
    if (hms[0] >= 24.0 || hms[1] >= 60.0 || hms[2] >= 61.0)
        return QDateTime();
    const QTime time = QTime(static_cast<int>(hms[0]), static_cast<int>(hms[1]))
                           .addMSecs(static_cast<int>(std::lround(hms[2] * 1000.0)));
    return QDateTime(date, time, Qt::UTC);
}

// Whole degrees of clockwise rotation that make the picture upright. Each
// mirrored orientation is read as "turn, then mirror left-right", so after the
// turn the picture stands upright and is only mirrored: 2 -> 0, 4 -> 180,
// 5 -> 90, 7 -> 270.
int orientationDegrees(int exifOrientation)
{
    switch (exifOrientation)
    {
    case 1:
    case 2:
        return 0;
    case 3:
    case 4:
        return 180;
    case 5:
    case 6:
        return 90;
    case 7:
    case 8:
        return 270;
    default:
        return -1;
    }
}

LensInfo readLens(const Exiv2::ExifData& exif, bool& found)
{
    LensInfo lens;
    const Exiv2::Exifdatum* lensSpecification = findDatum(exif, "Exif.Photo.LensSpecification");
    if (!lensSpecification)
        lensSpecification = findDatum(exif, "Exif.Image.LensInfo"); // the same four numbers in DNG files
    found = false;
    if (lensSpecification)
    {
        // Focal range, then the smallest f-numbers at its short and long ends.
        double values[4] = {0.0, 0.0, 0.0, 0.0};
        for (long i = 0; i < 4; ++i)
        {
            if (numberAt(*lensSpecification, i, values[i]) && values[i] > 0.0)
                found = true;
            else
                values[i] = 0.0;
        }
        lens.minFocalLength = values[0];
        lens.maxFocalLength = values[1];
        lens.minFNumber = values[2];
        lens.maxFNumber = values[3];
    }
    lens.make = textOf(exif, "Exif.Photo.LensMake");
    lens.model = textOf(exif, "Exif.Photo.LensModel");
    // Older cameras name the lens only in their maker note; these tags are text.
    static const char* const makerNoteKeys[] = {"Exif.Canon.LensModel", "Exif.OlympusEq.LensModel",
                                                "Exif.Panasonic.LensType"};
    for (const char* key : makerNoteKeys)
    {
        if (!lens.model.isEmpty())
            break;
        lens.model = textOf(exif, key);
    }
    found = found || !lens.make.isEmpty() || !lens.model.isEmpty();
    return lens;
}

void collect(const Exiv2::Image& image, const Exiv2::ExifData& exif, EXIFInfo::Properties& out)
{
    double x = 0.0;
    double y = 0.0;
    if (numberOf(exif, "Exif.Image.XResolution", x) && numberOf(exif, "Exif.Image.YResolution", y) && x > 0.0
        && y > 0.0)
    {
        // 2 inch (also the default), 3 centimetre; 1 (no unit) is only an
        // aspect ratio and is left out.
        int unit = 2;
        integerOf(exif, "Exif.Image.ResolutionUnit", unit);
        if (unit == 3)
            out.insert(P::Resolution, QSizeF(x * 2.54, y * 2.54));
        else if (unit == 2)
            out.insert(P::Resolution, QSizeF(x, y));
    }

    // The decoder's own size first: EXIF dimensions go stale when a photo is edited.
    int width = image.pixelWidth();
    int height = image.pixelHeight();
    if (width <= 0 || height <= 0)
    {
        if (!integerOf(exif, "Exif.Photo.PixelXDimension", width)
            || !integerOf(exif, "Exif.Photo.PixelYDimension", height))
        {
            width = 0;
            height = 0;
        }
    }
    if (width > 0 && height > 0)
    {
        out.insert(P::Width, width);
        out.insert(P::Height, height);
    }

    const struct
    {
        P id;
        const char* key;
    } texts[] = {
        {P::CameraManufacturer, "Exif.Image.Make"}, {P::CameraModel, "Exif.Image.Model"},
        {P::Copyright, "Exif.Image.Copyright"},     {P::Description, "Exif.Image.ImageDescription"},
        {P::Software, "Exif.Image.Software"},
    };
    for (const auto& text : texts)
    {
        const QString value = textOf(exif, text.key);
        if (!value.isEmpty())
            out.insert(text.id, value);
    }

    const QString mime = QString::fromStdString(image.mimeType());
    if (!mime.isEmpty())
        out.insert(P::Format, mime);

    const QDateTime digitized = parseExifDateTime(textOf(exif, "Exif.Photo.DateTimeDigitized"),
                                                  textOf(exif, "Exif.Photo.OffsetTimeDigitized"));
    if (digitized.isValid())
        out.insert(P::DateTimeDigitized, digitized);
    const QDateTime original = parseExifDateTime(textOf(exif, "Exif.Photo.DateTimeOriginal"),
                                                 textOf(exif, "Exif.Photo.OffsetTimeOriginal"));
    if (original.isValid())
        out.insert(P::DateTimeOriginal, original);

    double number = 0.0;
    if (numberOf(exif, "Exif.Photo.ExposureBiasValue", number))
        out.insert(P::ExposureBiasValue, number);
    if (numberOf(exif, "Exif.Photo.ExposureTime", number) && number > 0.0)
        out.insert(P::ExposureTime, number);
    if (numberOf(exif, "Exif.Photo.FocalLength", number) && number > 0.0)
        out.insert(P::FocalLength, number);

    int integer = 0;
    if (integerOf(exif, "Exif.Photo.ISOSpeedRatings", integer) && integer > 0)
        out.insert(P::ISOSpeedRatings, integer);

    // APEX time value: the exposure lasts 2^-Tv seconds.
    if (numberOf(exif, "Exif.Photo.ShutterSpeedValue", number))
    {
        const double seconds = std::exp2(-number);
        if (std::isfinite(seconds) && seconds > 0.0)
            out.insert(P::ShutterSpeedValue, seconds);
    }

    // Numerator 0 means unknown, 0xFFFFFFFF infinity.
    const Exiv2::Exifdatum* distance = findDatum(exif, "Exif.Photo.SubjectDistance");
    if (distance && numberAt(*distance, 0, number) && number > 0.0)
    {
        const bool infinite = distance->typeId() == Exiv2::unsignedRational
                              && static_cast<std::uint32_t>(distance->toRational(0).first) == 0xFFFFFFFFu;
        out.insert(P::SubjectDistance, infinite ? std::numeric_limits<double>::infinity() : number);
    }

    if (gpsCoordinate(exif, "Exif.GPSInfo.GPSLatitude", "Exif.GPSInfo.GPSLatitudeRef", QLatin1Char('S'), 90.0,
                      number))
        out.insert(P::GPSLatitude, number);
    if (gpsCoordinate(exif, "Exif.GPSInfo.GPSLongitude", "Exif.GPSInfo.GPSLongitudeRef", QLatin1Char('W'),
                      180.0, number))
        out.insert(P::GPSLongitude, number);
    if (numberOf(exif, "Exif.GPSInfo.GPSAltitude", number))
    {
        int below = 0;
        integerOf(exif, "Exif.GPSInfo.GPSAltitudeRef", below);
        out.insert(P::GPSAltitude, below == 1 ? -number : number);
    }
    const QDateTime gps = gpsDateTime(exif);
    if (gps.isValid())
        out.insert(P::GPSDateTime, gps);

    if (numberOf(exif, "Exif.Photo.FNumber", number) && number > 0.0)
        out.insert(P::FNumber, number);
    else if (numberOf(exif, "Exif.Photo.ApertureValue", number)) // APEX: F = 2^(Av/2)
    {
        const double fNumber = std::exp2(number / 2.0);
        if (std::isfinite(fNumber) && fNumber > 0.0)
            out.insert(P::FNumber, fNumber);
    }

    // Flash and metering stay the plain EXIF codes; the program does not use a
    // multimedia library whose enums could carry them.
    if (integerOf(exif, "Exif.Photo.Flash", integer))
        out.insert(P::Flash, integer);
    if (integerOf(exif, "Exif.Photo.MeteringMode", integer))
        out.insert(P::MeteringMode, integer);

    if (integerOf(exif, "Exif.Image.Orientation", integer))
    {
        const int degrees = orientationDegrees(integer);
        if (degrees >= 0)
            out.insert(P::Orientation, degrees);
    }

    bool haveLens = false;
    const LensInfo lens = readLens(exif, haveLens);
    if (haveLens)
        out.insert(P::LensInfo, QVariant::fromValue(lens));
}

// ---- formatting -------------------------------------------------------------

// C-locale number with at most `decimals` decimals and no trailing zeros.
QString number(double value, int decimals)
{
    QString text = QString::number(value, 'f', decimals);
    if (text.contains(QLatin1Char('.')))
    {
        while (text.endsWith(QLatin1Char('0')))
            text.chop(1);
        if (text.endsWith(QLatin1Char('.')))
            text.chop(1);
    }
    if (text == QStringLiteral("-0"))
        text = QStringLiteral("0");
    return text;
}

QString formatSeconds(double seconds)
{
    if (!(seconds > 0.0) || !std::isfinite(seconds))
        return QString();
    if (seconds < 1.0)
    {
        const long denominator = std::lround(1.0 / seconds);
        // Between 2/3 s and 1 s the fraction would read "1/1".
        if (denominator >= 2)
            return QStringLiteral("1/%1").arg(denominator);
    }
    return QStringLiteral("%1 s").arg(number(seconds, 1));
}

QString formatRange(const QString& pattern, const QString& singlePattern, double low, double high, int decimals)
{
    if (low > 0.0 && high > 0.0 && number(low, decimals) != number(high, decimals))
        return pattern.arg(number(low, decimals), number(high, decimals));
    const double only = low > 0.0 ? low : high;
    return only > 0.0 ? singlePattern.arg(number(only, decimals)) : QString();
}

QString formatLens(const LensInfo& lens)
{
    QStringList parts;
    QString name = lens.model;
    if (!lens.make.isEmpty() && !name.startsWith(lens.make, Qt::CaseInsensitive))
        name = name.isEmpty() ? lens.make : lens.make + QLatin1Char(' ') + name;
    if (!name.isEmpty())
        parts << name;
    const QString focal =
        formatRange(QStringLiteral("%1-%2 mm"), QStringLiteral("%1 mm"), lens.minFocalLength, lens.maxFocalLength, 2);
    if (!focal.isEmpty())
        parts << focal;
    const QString aperture =
        formatRange(QStringLiteral("f/%1-%2"), QStringLiteral("f/%1"), lens.minFNumber, lens.maxFNumber, 2);
    if (!aperture.isEmpty())
        parts << aperture;
    return parts.join(QStringLiteral(", "));
}

QString formatCoordinate(double degrees, const QString& positive, const QString& negative)
{
    const QString value = QStringLiteral("%1%2").arg(number(std::fabs(degrees), 6), QChar(0x00B0));
    return value + QLatin1Char(' ') + (degrees < 0.0 ? negative : positive);
}

QString formatFlash(int flash)
{
    if (flash & 0x20)
        return tr("No flash function");
    QStringList parts;
    parts << ((flash & 0x01) ? tr("Flash fired") : tr("No flash"));
    switch ((flash >> 3) & 0x03)
    {
    case 1:
        parts << tr("forced on");
        break;
    case 2:
        parts << tr("forced off");
        break;
    case 3:
        parts << tr("auto");
        break;
    default:
        break;
    }
    if (flash & 0x40)
        parts << tr("red-eye reduction");
    return parts.join(QStringLiteral(", "));
}

QString formatMetering(int mode)
{
    switch (mode)
    {
    case 1: // average
    case 2: // centre-weighted average
        return tr("Average");
    case 3:
        return tr("Spot");
    case 5: // pattern
        return tr("Matrix");
    default:
        return tr("Unknown");
    }
}

bool toDouble(const QVariant& value, double& out)
{
    bool ok = false;
    out = value.toDouble(&ok);
    return ok && !std::isnan(out);
}

} // namespace

bool EXIFInfo::read(const QString& path, Properties& properties)
{
    properties.clear();
    registerMetaTypes();
    if (path.isEmpty())
        return false;

    Properties result;
    try
    {
        // Read before taking the lock, so other threads need not wait for it.
        QByteArray head;
        {
            QFile file;
            if (!platform::openRegularFile(path, file))
                return false;
            head = file.read(qMin(kMaxExifBytes, file.size())); // less if the file shrank meanwhile
        }
        if (head.isEmpty())
            return false;
        std::lock_guard<std::mutex> lock(exiv2Mutex());
        initialiseExiv2();
        auto image = Exiv2::ImageFactory::open(reinterpret_cast<const Exiv2::byte*>(head.constData()),
                                               static_cast<long>(head.size()));
        if (!image.get())
            return false;
        image->readMetadata();
        const Exiv2::ExifData& exif = image->exifData();
        if (exif.empty())
            return false;
        collect(*image, exif, result);
    }
    catch (const Exiv2::AnyError&)
    {
        return false;
    }
    catch (const std::exception&)
    {
        return false;
    }
    catch (...)
    {
        return false;
    }
    properties.swap(result);
    return true;
}

QList<EXIFMetadataProperty> EXIFInfo::registered()
{
    return registry().order;
}

QString EXIFInfo::key(EXIFMetadataProperty property)
{
    return registry().keys.value(static_cast<int>(property));
}

QString EXIFInfo::displayName(EXIFMetadataProperty property)
{
    const char* name = registry().names.value(static_cast<int>(property), nullptr);
    return name ? tr(name) : QString();
}

EXIFMetadataProperty EXIFInfo::fromKey(const QString& key)
{
    return registry().byKey.value(key.toLower(), P::Invalid);
}

QString EXIFInfo::formatValue(EXIFMetadataProperty property, const QVariant& value)
{
    registerMetaTypes();
    if (!value.isValid() || value.isNull())
        return QString();

    double d = 0.0;
    switch (property)
    {
    case P::Invalid:
        return QString();
    case P::Resolution:
    {
        const QSizeF size = value.toSizeF();
        if (size.isEmpty())
            return QString();
        const QString pair = QStringLiteral("%1 x %2").arg(number(size.width(), 2), number(size.height(), 2));
        return QStringLiteral("%1%2").arg(pair, QStringLiteral(" dpi"));
    }
    case P::Width:
    case P::Height:
    case P::ISOSpeedRatings:
        return QString::number(value.toInt());
    case P::CameraManufacturer:
    case P::CameraModel:
    case P::Copyright:
    case P::Description:
    case P::Software:
    case P::Format:
        return value.toString();
    case P::DateTimeDigitized:
    case P::DateTimeOriginal:
    case P::GPSDateTime:
    {
        const QDateTime dateTime = value.toDateTime();
        return dateTime.isValid() ? QLocale::c().toString(dateTime, QStringLiteral("yyyy-MM-dd hh:mm:ss"))
                                  : QString();
    }
    case P::ExposureBiasValue:
    {
        if (!toDouble(value, d))
            return QString();
        QString text = number(d, 1);
        if (text != QStringLiteral("0") && !text.startsWith(QLatin1Char('-')))
            text.prepend(QLatin1Char('+'));
        return QStringLiteral("%1%2").arg(text, QStringLiteral(" EV"));
    }
    case P::ExposureTime:
    case P::ShutterSpeedValue:
        return toDouble(value, d) ? formatSeconds(d) : QString();
    case P::FocalLength:
        return toDouble(value, d) && d > 0.0 ? QStringLiteral("%1 mm").arg(number(d, 2)) : QString();
    case P::SubjectDistance:
        if (!toDouble(value, d))
            return QString();
        return QStringLiteral("%1 m").arg(std::isinf(d) ? QString(QChar(0x221E)) : number(d, 2));
    case P::GPSAltitude:
        return toDouble(value, d) ? QStringLiteral("%1 m").arg(number(d, 2)) : QString();
    case P::GPSLatitude:
        return toDouble(value, d) ? formatCoordinate(d, QStringLiteral("N"), QStringLiteral("S")) : QString();
    case P::GPSLongitude:
        return toDouble(value, d) ? formatCoordinate(d, QStringLiteral("E"), QStringLiteral("W")) : QString();
    case P::FNumber:
        return toDouble(value, d) && d > 0.0 ? QStringLiteral("f/%1").arg(number(d, 2)) : QString();
    case P::Flash:
        return formatFlash(value.toInt());
    case P::MeteringMode:
        return formatMetering(value.toInt());
    case P::Orientation:
        return QStringLiteral("%1%2").arg(value.toInt()).arg(QChar(0x00B0));
    case P::LensInfo:
        if (value.userType() == qMetaTypeId<LensInfo>())
            return formatLens(value.value<LensInfo>());
        return value.toString();
    }
    return value.toString();
}

// Output targets. -----------------------------------------------------------

QString outputTargetProblem(const QString& path)
{
    const QFileInfo info(path);
    if (!info.exists())
        return info.isSymLink() ? QCoreApplication::translate("qutils", "it is a link to nothing")
                                : QString();
    if (info.isDir())
        return QCoreApplication::translate("qutils", "it is a folder");
    if (!info.isFile())
        return QCoreApplication::translate("qutils", "it is a device, pipe or socket, not a regular file");
    return QString();
}

bool isSameFile(const QString& a, const QString& b)
{
    quint64 deviceA = 0;
    quint64 inodeA = 0;
    quint64 deviceB = 0;
    quint64 inodeB = 0;
    if (platform::fileIdentity(a, deviceA, inodeA) && platform::fileIdentity(b, deviceB, inodeB))
        return deviceA == deviceB && inodeA == inodeB;
    // Not both there yet: the same file once written when they name the same
    // entry of the same folder.
    const auto entry = [](const QString& path) -> QString
    {
        const QFileInfo info(path);
        const QString folder = QFileInfo(info.absolutePath()).canonicalFilePath();
        return (folder.isEmpty() ? info.absolutePath() : folder) + QLatin1Char('/') + info.fileName();
    };
    return entry(a) == entry(b);
}

QString fileSha256(const QString& path)
{
    QFile file;
    if (!platform::openRegularFile(path, file))
        return QString();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (;;)
    {
        const qint64 read = file.read(block.data(), block.size());
        if (read < 0)
            return QString();
        if (read == 0)
            break;
        hash.addData(block.constData(), static_cast<int>(read));
    }
    return QString::fromLatin1(hash.result().toHex());
}

} // namespace qutils

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
