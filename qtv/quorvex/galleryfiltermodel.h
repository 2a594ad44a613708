#pragma once

#include <QSortFilterProxyModel>

// Shows only the photos whose processing state shares a bit with the mask, so
// a page can hide, say, everything that has not matched.
class CGalleryFilterModel : public QSortFilterProxyModel
{
    Q_OBJECT

public:
    // Every state bit from Idle (2) to Fail (256).
    static constexpr qint32 AllStates = 0x1FE;

    explicit CGalleryFilterModel(QObject* parent = nullptr);

    qint32 filterMask() const { return m_filterMask; }
    // Re-filters only when the mask really changes: re-filtering a large
    // folder resets the view's scroll position and selection.
    void setFilterMask(qint32 mask);

    // The state of a source value, whether it is held as the enum or as a number.
    static int stateValue(const QVariant& value);

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const override;

private:
    qint32 m_filterMask = AllStates;
};
