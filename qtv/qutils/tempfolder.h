#pragma once

#include <QString>

#include <memory>

class QTemporaryDir;

namespace qutils
{

// A fresh temporary folder of its own for one piece of work, under
// "Options/TempFolder" when that is set, else the system's temporary folder;
// removed with its contents when the object goes.
class CTempFolder
{
public:
    CTempFolder();
    ~CTempFolder();
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    bool isValid() const;
    QString path() const;
    QString filePath(const QString& name) const;

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

} // namespace qutils
