#pragma once

#include <QFileInfoList>
#include <QListView>
#include <QTimer>
#include <QVector>

#include <functional>

class CGalleryDelegate;
class CGalleryItem;
class CGalleryFilterModel;
class CImageModel;
class QFrame;
class QLabel;
class QUrl;

// A folder's photos as a wrapping grid of painted tiles, filtered by result
// class, with a preview panel for the selected photo.
class CGalleryWidget : public QListView
{
    Q_OBJECT

public:
    explicit CGalleryWidget(QWidget* parent = nullptr);
    ~CGalleryWidget() override;

    CImageModel* imageModel() const { return m_imageModel; }
    CGalleryFilterModel* filterModel() const { return m_filterModel; }
    CGalleryDelegate* galleryDelegate() const { return m_delegate; }
    QFrame* previewWidget() const { return m_preview; }
    // The live tile under the pointer (hidden while the pointer is elsewhere).
    CGalleryItem* hoverItem() const { return m_item; }

    void setFilterMask(int mask);

    // The preview's texts, shared with tests so the formats live in one place.
    static QString pathText(const QString& path);
    static QString sizeText(qint64 bytes);
    static QString dateText(const QString& path);
    // "Path: …<br/><br/>Result: …" of the detail window; result is the
    // model's result role (invalid while the photo has none), state its
    // model state (a reference photo of a new fingerprint is told by it).
    static QString detailResultText(const QString& path, const QVariant& result, int state = 0);
    // "PCE 59.8, below the threshold of 60".
    static QString pceThresholdText(double pce);

    // How the tile actions hand a folder or photo to the desktop; tests
    // replace it so nothing is launched. Returns whether it was handed over.
    using UrlOpener = std::function<bool(const QUrl& url)>;
    static void setUrlOpener(const UrlOpener& opener);

public slots:
    void setFiles(QFileInfoList value);
    void onDataChanged(const QModelIndex& topLeft, const QModelIndex& bottomRight, const QVector<int>& roles);
    void onPreviewShow(const QString& filePath);
    void onItemLeft(const QModelIndex& index);
    void onItemEntered(const QModelIndex& index);

protected:
    void resizeEvent(QResizeEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    void onCurrentChanged(const QModelIndex& current);
    void onAnimationTick();
    void placePreview();
    void hidePreview();
    void hideHoverItem();
    void openFolder(const QString& path);
    void openInExternalViewer(const QString& path);
    void showDetailResult(const QModelIndex& index);

    CImageModel* m_imageModel = nullptr;
    CGalleryFilterModel* m_filterModel = nullptr;
    CGalleryDelegate* m_delegate = nullptr;
    CGalleryItem* m_item = nullptr;
    QFrame* m_preview = nullptr;
    QLabel* m_previewImage = nullptr;
    QLabel* m_pathLabel = nullptr;
    QLabel* m_sizeLabel = nullptr;
    QLabel* m_dateLabel = nullptr;
    QLabel* m_verdictLabel = nullptr;
    QTimer m_frameTimer;
};
