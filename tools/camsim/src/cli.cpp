#include "camsim/cli.h"

#include "camsim/random.h"

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <ostream>

namespace camsim
{

namespace
{

template <typename T> bool parseNumber(const std::string& text, T& value)
{
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return !text.empty() && result.ec == std::errc() && result.ptr == end;
}

// "WxH"; returns false on anything else.
bool parseSize(const std::string& text, int& width, int& height)
{
    const size_t x = text.find('x');
    return x != std::string::npos && parseNumber(text.substr(0, x), width) &&
           parseNumber(text.substr(x + 1), height);
}

// "WxH" or "WxH+X+Y".
bool parseCrop(const std::string& text, ShotConfig& shot)
{
    const size_t plus = text.find('+');
    if (!parseSize(text.substr(0, plus), shot.cropWidth, shot.cropHeight))
        return false;
    if (plus == std::string::npos)
    {
        shot.cropX = shot.cropY = -1;
        return true;
    }
    const size_t second = text.find('+', plus + 1);
    return second != std::string::npos && parseNumber(text.substr(plus + 1, second - plus - 1), shot.cropX) &&
           parseNumber(text.substr(second + 1), shot.cropY);
}

} // namespace

std::string usageText()
{
    return "Usage: camsim [options] --out DIR\n"
           "Simulates photos of one virtual camera and writes DIR/<prefix>_0001.jpg and so on.\n"
           "\n"
           "Camera:\n"
           "  --profile NAME       plain (default), dslr or phone: a calibrated camera whose photos\n"
           "                       draw scene, exposure, quality and processing from a realistic mix\n"
           "                       (with --scene flat: its reference shots); other camera options\n"
           "                       still apply on top\n"
           "  --make TEXT          make (default Veltrano)\n"
           "  --model TEXT         model (default QX-1); make and model fix the model-level pattern\n"
           "  --unit N             unit seed: the individual camera (default 1)\n"
           "  --lens TEXT          lens name for EXIF (default none)\n"
           "  --size WxH           sensor size (default 1600x1200)\n"
           "  --prnu SIGMA         PRNU strength (default 0.01)\n"
           "Photos:\n"
           "  --count N            number of photos (default 1)\n"
           "  --first N            number of the first photo (default 1)\n"
           "  --seed N             seed of the scenes and noise (default 1)\n"
           "  --scene KIND         flat, gradient, texture, edges, natural, foliage or sky (default natural)\n"
           "  --exposure X         mean linear level, fraction of white (default 0.25; 0.02 dark, >1 "
           "clipped)\n"
           "  --format F           jpeg, tiff or png (default jpeg)\n"
           "  --bits 8|16          sample depth, 16 for tiff and png only (default 8)\n"
           "  --quality Q          JPEG quality 1..100 (default 92)\n"
           "  --denoise X          in-camera noise reduction 0..1 (default 0)\n"
           "  --sharpen X          in-camera sharpening 0..3 (default 0)\n"
           "  --crop WxH[+X+Y]     crop in sensor coordinates, centred without +X+Y\n"
           "  --rotate DEG         turn the stored pixels clockwise: 0, 90, 180, 270 (after the crop)\n"
           "  --orientation N      EXIF orientation tag 1..8, 0 for none (default 1), independent of "
           "--rotate\n"
           "  --no-exif            write no EXIF block\n"
           "Output:\n"
           "  --out DIR            output folder (created if missing)\n"
           "  --prefix NAME        file name prefix (default img)\n"
           "  --help               this text\n";
}

std::string parseCommandLine(const std::vector<std::string>& args, CommandLine& result)
{
    CommandLine r;
    // The profile sets the camera first, so the other options change it.
    for (size_t i = 0; i < args.size(); ++i)
    {
        std::string value;
        if (args[i] == "--profile" && i + 1 < args.size())
            value = args[i + 1];
        else if (args[i].rfind("--profile=", 0) == 0)
            value = args[i].substr(10);
        else
            continue;
        if (!profiles::parseProfile(value, r.profile))
            return "bad value '" + value + "' for --profile (plain, dslr or phone)";
        r.camera = profiles::camera(r.profile, 1);
    }
    std::vector<std::string> drawn; // options the profile draws per photo
    for (size_t i = 0; i < args.size(); ++i)
    {
        std::string name = args[i];
        std::string value;
        bool hasValue = false;
        const size_t equals = name.find('=');
        if (name.rfind("--", 0) == 0 && equals != std::string::npos)
        {
            value = name.substr(equals + 1);
            name = name.substr(0, equals);
            hasValue = true;
        }
        if (name == "--help" || name == "-h")
        {
            r.help = true;
            continue;
        }
        if (name == "--no-exif")
        {
            r.shot.writeExif = false;
            continue;
        }
        if (name.rfind("--", 0) != 0)
            return "unexpected argument '" + name + "'";
        if (!hasValue)
        {
            if (i + 1 >= args.size())
                return "option " + name + " needs a value";
            value = args[++i];
        }
        const std::string bad = "bad value '" + value + "' for " + name;
        if (name == "--profile")
            continue; // handled above
        if (name == "--exposure" || name == "--quality" || name == "--denoise" || name == "--sharpen" ||
            (name == "--scene" && value != "flat" && value != "natural"))
            drawn.push_back(name);
        if (name == "--make")
            r.camera.make = value;
        else if (name == "--model")
            r.camera.model = value;
        else if (name == "--lens")
            r.camera.lens = value;
        else if (name == "--unit")
        {
            if (!parseNumber(value, r.camera.unitSeed))
                return bad;
        }
        else if (name == "--size")
        {
            if (!parseSize(value, r.camera.width, r.camera.height))
                return bad;
        }
        else if (name == "--prnu")
        {
            if (!parseNumber(value, r.camera.prnuSigma))
                return bad;
        }
        else if (name == "--count")
        {
            if (!parseNumber(value, r.count) || r.count < 1 || r.count > 99999)
                return bad + " (1..99999)";
        }
        else if (name == "--first")
        {
            if (!parseNumber(value, r.first) || r.first < 0 || r.first > 99999)
                return bad + " (0..99999)";
        }
        else if (name == "--seed")
        {
            if (!parseNumber(value, r.seed))
                return bad;
        }
        else if (name == "--scene")
        {
            if (!parseSceneKind(value, r.shot.scene))
                return bad + " (flat, gradient, texture, edges, natural, foliage or sky)";
        }
        else if (name == "--exposure")
        {
            if (!parseNumber(value, r.shot.exposure))
                return bad;
        }
        else if (name == "--format")
        {
            if (!parseFormat(value, r.shot.format))
                return bad + " (jpeg, tiff or png)";
        }
        else if (name == "--bits")
        {
            if (!parseNumber(value, r.shot.bits))
                return bad;
        }
        else if (name == "--quality")
        {
            if (!parseNumber(value, r.shot.quality))
                return bad;
        }
        else if (name == "--denoise")
        {
            if (!parseNumber(value, r.shot.denoise))
                return bad;
        }
        else if (name == "--sharpen")
        {
            if (!parseNumber(value, r.shot.sharpen))
                return bad;
        }
        else if (name == "--crop")
        {
            if (!parseCrop(value, r.shot))
                return bad + " (WxH or WxH+X+Y)";
        }
        else if (name == "--rotate")
        {
            if (!parseNumber(value, r.shot.rotation))
                return bad;
        }
        else if (name == "--orientation")
        {
            if (!parseNumber(value, r.shot.orientation))
                return bad;
        }
        else if (name == "--out")
            r.outDir = value;
        else if (name == "--prefix")
            r.prefix = value;
        else
            return "unknown option " + name;
    }
    if (!r.help)
    {
        if (r.profile != profiles::Profile::Plain && !drawn.empty())
            return drawn.front() + " cannot be given with --profile, which draws it for every photo";
        if (r.outDir.empty())
            return "--out DIR is required";
        if (r.prefix.empty() || r.prefix.find('/') != std::string::npos)
            return "the prefix must be a plain, non-empty file name part";
        if (r.first + r.count - 1 > 99999)
            return "photo numbers must stay below 100000";
        try
        {
            validateCamera(r.camera);
            validateShot(r.camera, r.shot);
        }
        catch (const Error& e)
        {
            return e.what();
        }
    }
    result = r;
    return {};
}

int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    CommandLine options;
    const std::string problem = parseCommandLine(args, options);
    if (!problem.empty())
    {
        err << "camsim: " << problem << "\n"
            << "Try 'camsim --help'.\n";
        return 2;
    }
    if (options.help)
    {
        out << usageText();
        return 0;
    }
    try
    {
        std::error_code ec;
        std::filesystem::create_directories(options.outDir, ec);
        if (ec)
            throw Error("cannot create " + options.outDir + ": " + ec.message());
        const Camera camera(options.camera);
        for (int n = options.first; n < options.first + options.count; ++n)
        {
            ShotConfig shot = options.shot;
            shot.sceneSeed = combineSeeds(options.seed, static_cast<uint64_t>(n));
            if (options.profile != profiles::Profile::Plain)
            {
                const ShotConfig drawn = options.shot.scene == SceneKind::Flat
                                             ? profiles::referenceShot(options.profile, shot.sceneSeed)
                                             : profiles::naturalShot(options.profile, shot.sceneSeed);
                shot.scene = drawn.scene;
                shot.exposure = drawn.exposure;
                shot.quality = drawn.quality;
                shot.denoise = drawn.denoise;
                shot.sharpen = drawn.sharpen;
            }
            char name[32];
            std::snprintf(name, sizeof name, "_%04d.", n);
            const std::string path = (std::filesystem::path(options.outDir) /
                                      (options.prefix + name + formatExtension(shot.format)))
                                         .string();
            camera.shoot(shot, path);
            out << path << "\n" << std::flush;
        }
    }
    catch (const std::exception& e)
    {
        err << "camsim: " << e.what() << "\n";
        return 1;
    }
    return 0;
}

} // namespace camsim
