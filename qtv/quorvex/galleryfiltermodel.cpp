#include "galleryfiltermodel.h"

#include "imagemodel.h"

CGalleryFilterModel::CGalleryFilterModel(QObject* parent)
    : QSortFilterProxyModel(parent)
{
    // A state change in the source then re-filters its row.
    setFilterRole(CImageModel::ItemStateRole);
    setDynamicSortFilter(true);
}

void CGalleryFilterModel::setFilterMask(qint32 mask)
{
    if (mask == m_filterMask)
        return;
    m_filterMask = mask;
    invalidateFilter();
}

int CGalleryFilterModel::stateValue(const QVariant& value)
{
    if (value.userType() == qMetaTypeId<CImageModel::State>())
        return static_cast<int>(value.value<CImageModel::State>());
    return value.toInt();
}

bool CGalleryFilterModel::filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const
{
    const QAbstractItemModel* source = sourceModel();
    if (!source)
        return false;
    const QModelIndex index = source->index(sourceRow, 0, sourceParent);
    return (stateValue(index.data(CImageModel::ItemStateRole)) & m_filterMask) != 0;
}
