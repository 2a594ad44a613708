#pragma once

#include <QAbstractListModel>
#include <QFileInfo>
#include <QFileInfoList>
#include <QHash>
#include <QImage>
#include <QQueue>
#include <QSize>
#include <QThread>
#include <QVariant>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

// One row per photo: its thumbnail, name, path, processing state, a rich-text
// description and the per-photo result. Thumbnails are decoded on demand by
// the model's own thread into a cache shared by every model in the process,
// so a photo shown on one page is not decoded again on another.
class CImageModel : public QAbstractListModel
{
    Q_OBJECT

public:
    // Single bits, so filters can combine them into masks.
    enum State
    {
        Idle = 2,
        Processing = 4,
        Waiting = 8,
        SuccessVeryHigh = 16,
        SuccessHigh = 32,
        SuccessMedium = 64,
        SuccessLow = 128,
        Fail = 256,
        NotCompared = 512,
    };
    Q_ENUM(State)

    // Numbered from 0 on purpose: they coincide with the standard display,
    // decoration, edit, tool-tip, status-tip and what's-this roles.
    enum Role
    {
        ImageRole = 0,
        FileNameRole = 1,
        ItemStateRole = 2,
        DescriptionRole = 3,
        PathRole = 4,
        ResultRole = 5,
    };

    static constexpr int DefaultThumbnailCacheLimit = 5000;

    class CPixmapThread;

    explicit CImageModel(QObject* parent = nullptr);
    ~CImageModel() override;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    void setFiles(const QFileInfoList& files);
    QFileInfoList files() const { return m_files; }

    // 0 <= index <= count is accepted (callers never pass the count itself);
    // anything else is logged and ignored.
    void setState(int index, State state);
    void setDescription(int index, const QString& description);
    void setResult(int index, const QVariant& result);

    void setThumbnailSize(const QSize& size);
    QSize thumbnailSize() const { return m_thumbnailSize; }

    // The most thumbnails the shared cache keeps before it drops the oldest.
    void setThumbnailCacheLimit(int limit);
    int thumbnailCacheLimit() const;

    // Ends the thumbnail thread and waits for the decode in progress; the
    // model then serves placeholders only. Safe to call more than once.
    void stopThread();

    // The shared cache, for the gallery's owners and for tests.
    static bool isThumbnailCached(const QFileInfo& file);
    static int thumbnailCacheCount();
    static void clearThumbnailCache();

    // Called on the thumbnail thread before each decode; tests use it to count
    // decodes and to hold one in progress.
    using DecodeHook = std::function<void(const QString& path)>;
    static void setDecodeHook(const DecodeHook& hook);

private:
    void onThumbnailReady(const QString& key);

    QFileInfoList m_files;
    QHash<QString, int> m_rows;
    QHash<QString, State> m_states;
    QHash<QString, QString> m_descriptions;
    QHash<QString, QVariant> m_results;
    QSize m_thumbnailSize;
    std::unique_ptr<CPixmapThread> m_thread;
};

Q_DECLARE_METATYPE(CImageModel::State)

// Decodes requested thumbnails one at a time into the shared cache and reports
// each finished one with thumbnailReady, delivered to the model by a queued
// connection. It never reaches into the model: the size, the limit and the
// requests are handed to it.
class CImageModel::CPixmapThread : public QThread
{
    Q_OBJECT

public:
    CPixmapThread();
    ~CPixmapThread() override;

    void request(const QFileInfo& file);
    void setThumbnailSize(const QSize& size);
    void setCacheLimit(int limit) { m_cacheLimit.store(limit); }
    int cacheLimit() const { return m_cacheLimit.load(); }
    void stop();

    // Reads the photo at the size that fits the box once it is turned upright
    // by its EXIF orientation; a null image when it cannot be decoded.
    static QImage loadThumbnail(const QString& path, const QSize& box);

signals:
    void thumbnailReady(const QString& key);

protected:
    void run() override;

private:
    // Guards the request queue, the stop flag and the box; the wake condition
    // shares it. Never held during a decode, so the GUI thread never waits on one.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    QQueue<QFileInfo> m_queue;
    QSize m_box;
    bool m_stopped = false;
    std::atomic<int> m_cacheLimit{DefaultThumbnailCacheLimit};
};
