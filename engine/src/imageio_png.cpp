// PNG through libpng.
//
// libpng reports errors through our error function, which longjmps back into
// runPng(). As for JPEG, runPng() holds no object with a destructor; all state
// lives in a PngJob owned by the C++ caller, released by its destructor on
// every path. Warnings are dropped, so nothing reaches stderr.

#include "imageio_internal.h"
#include "status.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <png.h>

namespace lumicrest
{
namespace io
{
namespace
{

struct PngJob
{
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::FILE* file = nullptr;
    const ReadLimits* limits = nullptr;
    Photo* photo = nullptr; // null: header only
    unsigned char* row = nullptr;
    bool truncated = false; // the read function ran out of file
    int width = 0;
    int height = 0;
    int32_t code = 0;
    char message[256] = {};

    PngJob() = default;
    ~PngJob()
    {
        if (png)
            png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
        std::free(row);
    }
    PngJob(const PngJob&) = delete;
    PngJob& operator=(const PngJob&) = delete;
};

void setMessage(PngJob* job, const char* text)
{
    std::snprintf(job->message, sizeof job->message, "%s", text ? text : "");
}

void pngError(png_structp png, png_const_charp message)
{
    auto* job = static_cast<PngJob*>(png_get_error_ptr(png));
    setMessage(job, message);
    if (job->truncated)
        job->code = LUMICREST_PHOTO_TRUNCATED;
    else if (message && (std::strstr(message, "Out of memory") || std::strstr(message, "out of memory") ||
                         std::strstr(message, "Insufficient memory")))
        job->code = LUMICREST_OUT_OF_MEMORY;
    else
        job->code = LUMICREST_PHOTO_CORRUPT;
    png_longjmp(png, 1);
}

void pngWarning(png_structp, png_const_charp)
{
}

void pngRead(png_structp png, png_bytep data, size_t length)
{
    auto* job = static_cast<PngJob*>(png_get_io_ptr(png));
    if (std::fread(data, 1, length, job->file) != length)
    {
        job->truncated = true;
        png_error(png, "unexpected end of file");
    }
}

// count pixels of one row (8 or 16 bit, interleaved) into the planes.
void storePngRow(const unsigned char* src, int count, int channels, int depth, const RowTarget& t, int x0, int xStep)
{
    static const int pick[3] = {0, 1, 2};
    if (depth == 8)
    {
        storeRow8(src, count, channels, pick, t, x0, xStep);
        return;
    }
    for (int c = 0; c < channels; ++c)
    {
        const unsigned char* s = src + 2 * c;
        float* d = t.planes[c] + x0;
        const size_t step = static_cast<size_t>(2 * channels);
        for (int i = 0; i < count; ++i)
        {
            const unsigned v = (static_cast<unsigned>(s[i * step]) << 8) | s[i * step + 1]; // big-endian
            d[static_cast<size_t>(i) * xStep] = static_cast<float>(v) * kScale16;
        }
    }
}

// Only trivially destructible locals here (see the file comment).
void runPng(PngJob* job)
{
    job->png = png_create_read_struct(PNG_LIBPNG_VER_STRING, job, pngError, pngWarning);
    if (!job->png)
    {
        job->code = LUMICREST_OUT_OF_MEMORY;
        setMessage(job, "cannot create the libpng reader");
        return;
    }
    job->info = png_create_info_struct(job->png);
    if (!job->info)
    {
        job->code = LUMICREST_OUT_OF_MEMORY;
        setMessage(job, "cannot create the libpng info");
        return;
    }
    if (setjmp(png_jmpbuf(job->png)))
        return; // pngError set code and message
    png_structp png = job->png;
    png_infop info = job->info;
    png_set_read_fn(png, job, pngRead);
    // Our own limits (checked below) decide; libpng's default 1e6 must not
    // turn an absurd size into a "corrupt" one.
    png_set_user_limits(png, 0x7fffffffU, 0x7fffffffU);
    // Text and profile chunks are never used, and libpng would inflate the
    // compressed ones: a few kilobytes of zTXt can hold megabytes of text, so a
    // 2 MB file kept it busy for ten seconds. Skipped, they cost their bytes.
    static const png_byte ignored[] = "tEXt\0zTXt\0iTXt\0iCCP\0sPLT";
    png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, ignored, 5);
    png_read_info(png, info);

    png_uint_32 w = 0;
    png_uint_32 h = 0;
    int depth = 0;
    int colorType = 0;
    int interlace = 0;
    png_get_IHDR(png, info, &w, &h, &depth, &colorType, &interlace, nullptr, nullptr);
    job->width = static_cast<int>(w > 0x7fffffffU ? 0x7fffffffU : w);
    job->height = static_cast<int>(h > 0x7fffffffU ? 0x7fffffffU : h);
    if (const int32_t problem = sizeProblem(w, h, *job->limits))
    {
        job->code = problem;
        return;
    }
    if (!job->photo)
        return;

    if (colorType == PNG_COLOR_TYPE_PALETTE)
        png_set_palette_to_rgb(png);
    if (colorType == PNG_COLOR_TYPE_GRAY && depth < 8)
        png_set_expand_gray_1_2_4_to_8(png);
    png_set_strip_alpha(png); // also drops the alpha a palette's tRNS would add
    png_read_update_info(png, info);

    const int channels = png_get_channels(png, info);
    const int outDepth = png_get_bit_depth(png, info);
    if ((channels != 1 && channels != 3) || (outDepth != 8 && outDepth != 16))
    {
        job->code = LUMICREST_FORMAT_NOT_SUPPORTED;
        setMessage(job, "unexpected PNG layout after expansion");
        return;
    }
    const size_t rowBytes = png_get_rowbytes(png, info);
    if (rowBytes < static_cast<size_t>(job->width) * channels * (outDepth / 8))
    {
        job->code = LUMICREST_INTERNAL_ERROR;
        setMessage(job, "libpng row size smaller than expected");
        return;
    }
    job->row = static_cast<unsigned char*>(std::malloc(rowBytes));
    if (!job->row || !allocatePhoto(*job->photo, job->width, job->height, channels))
    {
        job->code = LUMICREST_OUT_OF_MEMORY;
        setMessage(job, "out of memory for the pixel planes");
        return;
    }

    if (interlace == PNG_INTERLACE_NONE)
    {
        for (int y = 0; y < job->height; ++y)
        {
            png_read_row(png, job->row, nullptr);
            storePngRow(job->row, job->width, channels, outDepth, rowTarget(*job->photo, y), 0, 1);
        }
    }
    else
    {
        // Adam7 without libpng's interlace handling: each pass delivers the
        // rows of a reduced image, which are scattered straight into the
        // planes, so no whole 8/16-bit image is ever held.
        for (int pass = 0; pass < 7; ++pass)
        {
            const png_uint_32 passCols = PNG_PASS_COLS(w, pass);
            const png_uint_32 passRows = PNG_PASS_ROWS(h, pass);
            if (passCols == 0 || passRows == 0)
                continue;
            const int x0 = static_cast<int>(PNG_PASS_START_COL(pass));
            const int xStep = 1 << PNG_PASS_COL_SHIFT(pass);
            for (png_uint_32 r = 0; r < passRows; ++r)
            {
                png_read_row(png, job->row, nullptr);
                const int y = static_cast<int>(PNG_ROW_FROM_PASS_ROW(r, pass));
                storePngRow(job->row, static_cast<int>(passCols), channels, outDepth, rowTarget(*job->photo, y), x0,
                            xStep);
            }
        }
    }
    png_read_end(png, nullptr);
}

// The IHDR sits right after the signature; its size is checked from the file's
// head before libpng sees anything.
void precheckHeader(const PhotoFile& f, const ReadLimits& limits)
{
    if (f.headSize < 24 || std::memcmp(f.head + 12, "IHDR", 4) != 0)
        return; // let libpng report what is wrong
    auto be32 = [](const unsigned char* p) {
        return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
               (static_cast<uint32_t>(p[2]) << 8) | p[3];
    };
    checkSize(f, "PNG", be32(f.head + 16), be32(f.head + 20), limits);
}

} // namespace

void decodePng(const PhotoFile& f, const ReadLimits& limits, Photo* photo, int& width, int& height)
{
    precheckHeader(f, limits);
    PngJob job;
    job.file = f.file;
    job.limits = &limits;
    job.photo = photo;
    runPng(&job);
    width = job.width;
    height = job.height;
    if (job.code == 0)
        return;
    if (job.code == LUMICREST_PHOTO_UNREADABLE || job.code == LUMICREST_PHOTO_TOO_LARGE)
        checkSize(f, "PNG", job.width, job.height, limits);
    if (photo)
        *photo = Photo();
    const char* kind = job.code == LUMICREST_PHOTO_TRUNCATED ? "PNG truncated: "
                       : job.code == LUMICREST_PHOTO_CORRUPT ? "PNG data corrupt: "
                                                             : "PNG: ";
    fail(job.code, describe(f, std::string(kind) + job.message));
}

} // namespace io
} // namespace lumicrest
