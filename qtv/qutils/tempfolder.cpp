#include "tempfolder.h"

#include "appsettings.h"

#include <QDir>
#include <QTemporaryDir>

namespace qutils
{

CTempFolder::CTempFolder()
{
    QString base = CAppSettings::textOption(CAppSettings::EOption::TempFolder);
    if (base.isEmpty() || !QDir(base).exists())
        base = QDir::tempPath();
    m_dir = std::make_unique<QTemporaryDir>(QDir(base).filePath(QStringLiteral("quorvex-XXXXXX")));
}

CTempFolder::~CTempFolder() = default;

bool CTempFolder::isValid() const
{
    return m_dir->isValid();
}

QString CTempFolder::path() const
{
    return m_dir->path();
}

QString CTempFolder::filePath(const QString& name) const
{
    return m_dir->filePath(name);
}

} // namespace qutils
