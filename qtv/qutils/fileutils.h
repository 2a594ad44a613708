#pragma once

#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QVariant>

namespace qutils
{

// The photo properties the program reads from EXIF blocks. The numbers are
// stable identifiers (7 is the format; 24 and 25 are the pixel size).
enum class EXIFMetadataProperty : int
{
    Invalid = 0,
    Resolution = 1,
    CameraManufacturer = 2,
    CameraModel = 3,
    Copyright = 4,
    Description = 5,
    Software = 6,
    Format = 7,
    DateTimeDigitized = 8,
    DateTimeOriginal = 9,
    ExposureBiasValue = 10,
    ExposureTime = 11,
    FocalLength = 12,
    ISOSpeedRatings = 13,
    ShutterSpeedValue = 14,
    SubjectDistance = 15,
    GPSLatitude = 16,
    GPSLongitude = 17,
    GPSAltitude = 18,
    GPSDateTime = 19,
    FNumber = 20,
    Flash = 21,
    MeteringMode = 22,
    Orientation = 23,
    Width = 24,
    Height = 25,
    LensInfo = 26,
};

class EXIFInfo
{
public:
    // The lens as the EXIF block describes it; the model is what a new
    // fingerprint records as its lens.
    struct LensInfo_t
    {
        double minFocalLength = 0.0; // mm
        double maxFocalLength = 0.0;
        double minFNumber = 0.0;
        double maxFNumber = 0.0;
        QString make;
        QString model;

        friend bool operator==(const LensInfo_t& a, const LensInfo_t& b)
        {
            return a.minFocalLength == b.minFocalLength && a.maxFocalLength == b.maxFocalLength
                && a.minFNumber == b.minFNumber && a.maxFNumber == b.maxFNumber && a.make == b.make
                && a.model == b.model;
        }
        friend bool operator!=(const LensInfo_t& a, const LensInfo_t& b) { return !(a == b); }
    };

    using Properties = QMap<EXIFMetadataProperty, QVariant>;

    // Reads the EXIF block of a photo. False when the file has none or it
    // cannot be read: callers treat that as a photo without metadata, never as
    // an error. A property the photo does not have is absent from the map.
    // Safe to call from several threads at once.
    //
    // Value types: texts (make, model, copyright, description, software, and
    // Format, the file's MIME type) as QString; Resolution as QSizeF in dots
    // per inch; Width, Height, ISOSpeedRatings, Flash (the EXIF flash bits)
    // and MeteringMode (the EXIF code) as int; the three dates as QDateTime
    // (GPSDateTime in UTC); ExposureTime and ShutterSpeedValue in seconds,
    // ExposureBiasValue in EV, FocalLength in mm, SubjectDistance and
    // GPSAltitude in metres (infinity for a subject at infinity, negative
    // below sea level), GPSLatitude and GPSLongitude in decimal degrees
    // (negative south and west), FNumber, all as double; Orientation as int
    // degrees of clockwise rotation that make the picture upright (0, 90,
    // 180, 270; a mirrored picture gives the rotation of its unmirrored
    // form); LensInfo as LensInfo_t.
    static bool read(const QString& path, Properties& properties);

    // The identifiers in the order they are registered.
    static QList<EXIFMetadataProperty> registered();
    // The lower-case key ("cameramanufacturer") and the display name ("Manufacturer").
    static QString key(EXIFMetadataProperty property);
    static QString displayName(EXIFMetadataProperty property);
    // Keys compare lower-cased; an unknown key gives Invalid.
    static EXIFMetadataProperty fromKey(const QString& key);

    // The value as the report and the gallery show it ("1/250", "f/2.8", "35 mm", ...).
    static QString formatValue(EXIFMetadataProperty property, const QVariant& value);
};

// Why a file cannot be written at path, or an empty text when it can: what
// is there already (links followed) must be a regular file, since saving
// replaces it and a device, pipe, socket or folder must never be replaced.
QString outputTargetProblem(const QString& path);

// True when both paths name the same file, through links or other spellings
// alike; for a file not there yet, when both name the same entry of the same
// folder.
bool isSameFile(const QString& a, const QString& b);

// The SHA-256 of a regular file's bytes in lower-case hex, read in blocks so
// a large file is never held whole; empty when the file cannot be read to its
// end (missing, a pipe or device, a read error). Slow for large files: call it
// off the GUI thread.
QString fileSha256(const QString& path);

} // namespace qutils

Q_DECLARE_METATYPE(qutils::EXIFInfo::LensInfo_t)
