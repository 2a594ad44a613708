// JPEG through libjpeg(-turbo).
//
// libjpeg reports errors by calling error_exit, which must not return; ours
// longjmps back into runJpeg(). To keep that well-defined, runJpeg() holds no
// object with a destructor: all state, including the libjpeg structures, lives
// in a JpegJob owned by the C++ caller, whose destructor releases it on every
// path. Nothing is written to stderr: output_message is silent and warnings
// are either ignored or turned into failures.

#include "imageio_internal.h"
#include "status.h"

#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <jerror.h>
#include <jpeglib.h>

namespace lumicrest
{
namespace io
{
namespace
{

// A progressive or multi-scan file may hold any number of scans, and every
// scan costs a pass over the whole coefficient buffer: a few megabytes of
// empty scans would keep the decoder busy for minutes. Real encoders write
// about ten; more than this many is refused as corrupt.
constexpr int kMaxScans = 1000;

struct JpegErrorManager
{
    jpeg_error_mgr pub;
    std::jmp_buf jump;
    int32_t code;
    char message[JMSG_LENGTH_MAX];
    // Set once every scanline has been read: a missing EOI marker after that
    // costs no pixel and is tolerated.
    bool pixelsComplete;
};

// libjpeg calls the progress monitor between the steps of its input loop, so
// it sees every scan: it counts them and notes which components they carried.
struct JpegProgress
{
    jpeg_progress_mgr pub;
    unsigned componentsSeen; // bit i: component i was in a scan
};

struct JpegJob
{
    jpeg_decompress_struct cinfo;
    JpegErrorManager err;
    JpegProgress progress;
    std::FILE* file = nullptr;
    const ReadLimits* limits = nullptr;
    Photo* photo = nullptr; // null: header only
    int width = 0;
    int height = 0;
    int32_t code = 0;       // result value when runJpeg() fails
    const char* what = "";  // static text describing a non-libjpeg failure

    JpegJob()
    {
        std::memset(&cinfo, 0, sizeof cinfo);
        std::memset(&err, 0, sizeof err);
        std::memset(&progress, 0, sizeof progress);
    }
    ~JpegJob() { jpeg_destroy_decompress(&cinfo); } // safe on a zeroed or half-built struct
    JpegJob(const JpegJob&) = delete;
    JpegJob& operator=(const JpegJob&) = delete;
};

[[noreturn]] void jumpOut(j_common_ptr cinfo, int32_t code)
{
    auto* err = reinterpret_cast<JpegErrorManager*>(cinfo->err);
    err->code = code;
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}

[[noreturn]] void jumpOutWith(j_common_ptr cinfo, int32_t code, const char* text)
{
    auto* err = reinterpret_cast<JpegErrorManager*>(cinfo->err);
    err->code = code;
    std::snprintf(err->message, sizeof err->message, "%s", text);
    std::longjmp(err->jump, 1);
}

void noteScanComponents(j_decompress_ptr cinfo)
{
    auto* progress = reinterpret_cast<JpegProgress*>(cinfo->progress);
    for (int i = 0; i < cinfo->comps_in_scan && i < MAX_COMPS_IN_SCAN; ++i)
        if (cinfo->cur_comp_info[i] && cinfo->cur_comp_info[i]->component_index < 32)
            progress->componentsSeen |= 1u << cinfo->cur_comp_info[i]->component_index;
}

void jpegProgressMonitor(j_common_ptr common)
{
    auto* cinfo = reinterpret_cast<j_decompress_ptr>(common);
    if (cinfo->input_scan_number > kMaxScans)
        jumpOutWith(common, LUMICREST_PHOTO_CORRUPT,
                    "more than 1000 scans (encoders write about ten); refused before decoding them all");
    noteScanComponents(cinfo);
}

// After all input is consumed: did every component get every coefficient in
// full? libjpeg fills what never arrived with zeros, which would pass as a
// smooth or grey photo. True when something is missing; the detail is then in
// err.message.
bool incompleteScans(JpegJob* job)
{
    jpeg_decompress_struct* cinfo = &job->cinfo;
    char* text = job->err.message;
    for (int ci = 0; ci < cinfo->num_components && ci < 32; ++ci)
    {
        if (!(job->progress.componentsSeen & (1u << ci)))
        {
            std::snprintf(text, JMSG_LENGTH_MAX, "no scan holds component %d; the photo is incomplete", ci + 1);
            return true;
        }
        if (!cinfo->progressive_mode || !cinfo->coef_bits)
            continue;
        // coef_bits: -1 never received, > 0 low bits still missing.
        for (int k = 0; k < DCTSIZE2; ++k)
        {
            const int bits = cinfo->coef_bits[ci][k];
            if (bits < 0)
            {
                std::snprintf(text, JMSG_LENGTH_MAX,
                              "progressive scans end before coefficient %d of component %d arrived; the photo is "
                              "incomplete",
                              k, ci + 1);
                return true;
            }
            if (bits > 0)
            {
                std::snprintf(text, JMSG_LENGTH_MAX,
                              "progressive scans end with %d low bits of coefficient %d of component %d missing; "
                              "the photo is incomplete",
                              bits, k, ci + 1);
                return true;
            }
        }
    }
    return false;
}

void jpegErrorExit(j_common_ptr cinfo)
{
    switch (cinfo->err->msg_code)
    {
    case JERR_OUT_OF_MEMORY:
        jumpOut(cinfo, LUMICREST_OUT_OF_MEMORY);
    case JERR_EMPTY_IMAGE: // a zero side in the frame header
    case JERR_IMAGE_TOO_BIG: // a side beyond libjpeg's 65500
        jumpOut(cinfo, LUMICREST_PHOTO_UNREADABLE);
    default:
        jumpOut(cinfo, LUMICREST_PHOTO_CORRUPT);
    }
}

void jpegEmitMessage(j_common_ptr cinfo, int level)
{
    if (level >= 0)
        return; // trace messages
    auto* err = reinterpret_cast<JpegErrorManager*>(cinfo->err);
    switch (cinfo->err->msg_code)
    {
    case JWRN_JPEG_EOF:
        // The source ran dry; libjpeg would go on with grey filler.
        if (!err->pixelsComplete)
            jumpOut(cinfo, LUMICREST_PHOTO_TRUNCATED);
        break;
    case JWRN_HIT_MARKER:
    case JWRN_HUFF_BAD_CODE:
    case JWRN_MUST_RESYNC:
        // Damaged entropy-coded data: libjpeg would carry on with garbage
        // pixels, which would only poison a noise residual.
        if (!err->pixelsComplete)
            jumpOut(cinfo, LUMICREST_PHOTO_CORRUPT);
        break;
    default:
        break; // harmless (extraneous bytes, unknown JFIF revision, ...)
    }
    cinfo->err->num_warnings++;
}

void jpegOutputMessage(j_common_ptr)
{
}

// Only trivially destructible locals here (see the file comment).
void runJpeg(JpegJob* job)
{
    jpeg_decompress_struct* cinfo = &job->cinfo;
    cinfo->err = jpeg_std_error(&job->err.pub);
    job->err.pub.error_exit = jpegErrorExit;
    job->err.pub.emit_message = jpegEmitMessage;
    job->err.pub.output_message = jpegOutputMessage;
    if (setjmp(job->err.jump))
    {
        job->code = job->err.code;
        return;
    }
    jpeg_create_decompress(cinfo);
    job->progress.pub.progress_monitor = jpegProgressMonitor;
    cinfo->progress = &job->progress.pub;
    jpeg_stdio_src(cinfo, job->file);
    jpeg_read_header(cinfo, TRUE);
    noteScanComponents(cinfo); // the first scan: its header was just read

    job->width = static_cast<int>(cinfo->image_width);
    job->height = static_cast<int>(cinfo->image_height);
    if (const int32_t problem = sizeProblem(cinfo->image_width, cinfo->image_height, *job->limits))
    {
        job->code = problem;
        job->what = "size";
        return;
    }
    if (cinfo->num_components == 1)
    {
        cinfo->out_color_space = JCS_GRAYSCALE;
    }
    else if (cinfo->num_components == 3 &&
             (cinfo->jpeg_color_space == JCS_YCbCr || cinfo->jpeg_color_space == JCS_RGB))
    {
        cinfo->out_color_space = JCS_RGB;
    }
    else
    {
        job->code = LUMICREST_FORMAT_NOT_SUPPORTED;
        job->what = "JPEG colour space not supported (only grey, YCbCr and RGB)";
        return;
    }
    if (!job->photo)
        return;

    cinfo->dct_method = JDCT_ISLOW; // the accurate integer IDCT, identical on every machine
    cinfo->do_fancy_upsampling = TRUE;
    const int channels = cinfo->num_components == 1 ? 1 : 3;
    if (!allocatePhoto(*job->photo, job->width, job->height, channels))
    {
        job->code = LUMICREST_OUT_OF_MEMORY;
        job->what = "out of memory for the pixel planes";
        return;
    }
    // A file of several scans is read whole here, before the first scanline.
    jpeg_start_decompress(cinfo);
    if (incompleteScans(job))
    {
        job->err.code = LUMICREST_PHOTO_TRUNCATED;
        job->code = LUMICREST_PHOTO_TRUNCATED;
        return;
    }
    if (static_cast<int>(cinfo->output_width) != job->width || static_cast<int>(cinfo->output_height) != job->height ||
        cinfo->output_components != channels)
    {
        job->code = LUMICREST_INTERNAL_ERROR;
        job->what = "libjpeg output geometry differs from the header";
        return;
    }
    // One scanline of 8-bit samples, from libjpeg's pool (freed with cinfo).
    JSAMPARRAY row = (*cinfo->mem->alloc_sarray)(reinterpret_cast<j_common_ptr>(cinfo), JPOOL_IMAGE,
                                                 cinfo->output_width * static_cast<JDIMENSION>(channels), 1);
    static const int pick[3] = {0, 1, 2};
    while (cinfo->output_scanline < cinfo->output_height)
    {
        const int y = static_cast<int>(cinfo->output_scanline);
        if (jpeg_read_scanlines(cinfo, row, 1) != 1)
        {
            job->code = LUMICREST_PHOTO_TRUNCATED;
            job->what = "libjpeg delivered no scanline";
            return;
        }
        storeRow8(row[0], job->width, channels, pick, rowTarget(*job->photo, y));
    }
    job->err.pixelsComplete = true;
    jpeg_finish_decompress(cinfo);
}

} // namespace

void decodeJpeg(const PhotoFile& f, const ReadLimits& limits, Photo* photo, int& width, int& height)
{
    JpegJob job;
    job.file = f.file;
    job.limits = &limits;
    job.photo = photo;
    runJpeg(&job);
    width = job.width;
    height = job.height;
    if (job.code == 0)
        return;
    if (job.err.code == 0 && (job.code == LUMICREST_PHOTO_UNREADABLE || job.code == LUMICREST_PHOTO_TOO_LARGE))
        checkSize(f, "JPEG", job.width, job.height, limits); // throws with the details
    if (photo)
        *photo = Photo();
    const char* detail = job.err.code != 0 ? job.err.message : job.what;
    const char* kind = job.code == LUMICREST_PHOTO_TRUNCATED ? "JPEG truncated: "
                       : job.code == LUMICREST_PHOTO_CORRUPT ? "JPEG data corrupt: "
                       : job.code == LUMICREST_PHOTO_UNREADABLE ? "JPEG size absurd: "
                                                                : "JPEG: ";
    fail(job.code, describe(f, std::string(kind) + detail));
}

} // namespace io
} // namespace lumicrest
