#pragma once

#include "fingerprint.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace lumicrest
{

// A file's bytes, left uninitialised until read: filling tens of megabytes
// with zeros first would cost a pass over them for nothing.
struct FileBytes
{
    std::unique_ptr<unsigned char[]> data;
    size_t size = 0;
};

// Reads a whole fingerprint file; only regular files. Throws Failure(450).
FileBytes readWholeFile(const std::string& path);

// The fingerprint bytes inside a file: the file itself, or the fingerprint
// array of the program's container. Throws Failure(450) on a broken container.
std::pair<const unsigned char*, size_t> fingerprintBytesIn(const FileBytes& in);

// What a fingerprint file says about itself, read without K.
struct FingerprintHead
{
    FingerprintData header; // K left empty
    uint32_t storedCrc = 0; // the checksum the bytes end with (not verified here)
};

// Reads only the header and the stored checksum: cheap whatever K's size.
// Throws Failure(450) on anything that is not a well-formed header.
FingerprintHead readFingerprintHead(const std::string& path);

} // namespace lumicrest
