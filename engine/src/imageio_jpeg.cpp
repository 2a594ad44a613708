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

struct JpegJob
{
    jpeg_decompress_struct cinfo;
    JpegErrorManager err;
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
    jpeg_stdio_src(cinfo, job->file);
    jpeg_read_header(cinfo, TRUE);

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
    jpeg_start_decompress(cinfo);
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
