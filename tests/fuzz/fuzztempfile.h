#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// One reusable file per process that a fuzz target rewrites with every input,
// for code that only reads paths. It lives in /dev/shm when there is one, so
// the millions of rewrites stay in memory, and is removed at exit.
class CFuzzTempFile
{
public:
    // tag goes into the file name, so a leftover file says which target made it.
    explicit CFuzzTempFile(const std::string& tag);
    ~CFuzzTempFile();

    CFuzzTempFile(const CFuzzTempFile&) = delete;
    CFuzzTempFile& operator=(const CFuzzTempFile&) = delete;

    // Replaces the file's content; aborts when the file cannot be written,
    // since every later input would then test nothing.
    void write(const uint8_t* data, size_t size);

    const std::string& path() const { return m_path; }

    // The folder for throwaway files: /dev/shm when usable, else the temp folder.
    static std::string scratchFolder();

private:
    std::string m_path;
};
