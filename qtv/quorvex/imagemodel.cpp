#include "imagemodel.h"

#include "qutils/debugutils.h"
#include "qutils/fileutils.h"
#include "qutils/platform.h"
#include "qutils/threadsync.h"

#include <QDir>
#include <QImageReader>
#include <QPixmap>
#include <QTransform>

namespace
{

// Files are the same key when they name the same absolute path.
QString fileKey(const QFileInfo& file)
{
    return QDir::cleanPath(file.absoluteFilePath());
}

// Shared by every model in the process. It holds images rather than pixmaps:
// the thumbnail thread fills and evicts it, and pixmaps may only be made and
// destroyed on the GUI thread, which converts an entry when a view asks.
struct SThumbnailCache
{
    std::mutex mutex;
    QHash<QString, QImage> images;
    QQueue<QString> order; // insertion order, oldest first

    static SThumbnailCache& instance()
    {
        static SThumbnailCache cache;
        return cache;
    }
};

std::mutex g_hookMutex;
CImageModel::DecodeHook g_decodeHook;

} // namespace

CImageModel::CImageModel(QObject* parent) : QAbstractListModel(parent), m_thread(new CPixmapThread)
{
    qRegisterMetaType<CImageModel::State>("CImageModel::State");
    connect(m_thread.get(), &CPixmapThread::thumbnailReady, this, &CImageModel::onThumbnailReady,
            Qt::QueuedConnection);
    m_thread->start(QThread::InheritPriority);
}

CImageModel::~CImageModel()
{
    stopThread();
}

void CImageModel::stopThread()
{
    m_thread->stop();
}

int CImageModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : m_files.size();
}

QVariant CImageModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() < 0 || index.row() >= m_files.size())
        return QVariant();

    const QFileInfo& file = m_files.at(index.row());
    const QString key = fileKey(file);
    switch (role)
    {
    case ImageRole:
    {
        SThumbnailCache& cache = SThumbnailCache::instance();
        {
            std::lock_guard<std::mutex> lock(cache.mutex);
            const auto it = cache.images.constFind(key);
            if (it != cache.images.constEnd())
                return QPixmap::fromImage(it.value());
        }
        QPixmap placeholder(m_thumbnailSize);
        if (!placeholder.isNull())
            placeholder.fill(Qt::transparent);
        // Asked again while missing, it is queued again; the thread skips
        // files that are already cached.
        m_thread->request(file);
        return placeholder;
    }
    case FileNameRole:
        return file.fileName();
    case ItemStateRole:
        return QVariant::fromValue(m_states.value(key, Idle));
    case DescriptionRole:
        return m_descriptions.value(key);
    case PathRole:
        return file.absoluteFilePath();
    case ResultRole:
        return m_results.value(key);
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> CImageModel::roleNames() const
{
    return {
        {ImageRole, QByteArrayLiteral("image")},         {FileNameRole, QByteArrayLiteral("fileName")},
        {ItemStateRole, QByteArrayLiteral("itemState")}, {DescriptionRole, QByteArrayLiteral("description")},
        {PathRole, QByteArrayLiteral("path")},           {ResultRole, QByteArrayLiteral("result")},
    };
}

void CImageModel::setFiles(const QFileInfoList& files)
{
    // Descriptions and results are keyed by file and kept, so a file that
    // comes back keeps them; states start over.
    emit layoutAboutToBeChanged();
    const QModelIndexList before = persistentIndexList();
    m_files = files;
    m_states.clear();
    // The first row of each file, so a finished thumbnail finds its row at once.
    m_rows.clear();
    m_rows.reserve(m_files.size());
    for (int row = m_files.size() - 1; row >= 0; --row)
        m_rows.insert(fileKey(m_files.at(row)), row);
    QModelIndexList after;
    after.reserve(before.size());
    for (const QModelIndex& index : before)
    {
        after.append(index.row() < m_files.size() ? this->index(index.row(), index.column()) : QModelIndex());
    }
    changePersistentIndexList(before, after);
    emit layoutChanged();
}

void CImageModel::setState(int index, State state)
{
    // The count itself passes the check, as callers have always relied on;
    // it matches no row, so nothing is stored for it.
    if (index < 0 || index > m_files.size())
    {
        QX_DEBUG << "Invalid item index";
        return;
    }
    if (index == m_files.size())
        return;
    m_states.insert(fileKey(m_files.at(index)), state);
    const QModelIndex changed = this->index(index);
    emit dataChanged(changed, changed, {ItemStateRole});
}

void CImageModel::setDescription(int index, const QString& description)
{
    if (index < 0 || index >= m_files.size())
        return;
    m_descriptions.insert(fileKey(m_files.at(index)), description);
    const QModelIndex changed = this->index(index);
    emit dataChanged(changed, changed, {DescriptionRole});
}

void CImageModel::setResult(int index, const QVariant& result)
{
    if (index < 0 || index >= m_files.size())
        return;
    m_results.insert(fileKey(m_files.at(index)), result);
    const QModelIndex changed = this->index(index);
    emit dataChanged(changed, changed, {ResultRole});
}

void CImageModel::setThumbnailSize(const QSize& size)
{
    m_thumbnailSize = size;
    m_thread->setThumbnailSize(size);
}

void CImageModel::setThumbnailCacheLimit(int limit)
{
    m_thread->setCacheLimit(limit);
}

int CImageModel::thumbnailCacheLimit() const
{
    return m_thread->cacheLimit();
}

bool CImageModel::isThumbnailCached(const QFileInfo& file)
{
    SThumbnailCache& cache = SThumbnailCache::instance();
    std::lock_guard<std::mutex> lock(cache.mutex);
    return cache.images.contains(fileKey(file));
}

int CImageModel::thumbnailCacheCount()
{
    SThumbnailCache& cache = SThumbnailCache::instance();
    std::lock_guard<std::mutex> lock(cache.mutex);
    return cache.images.size();
}

void CImageModel::clearThumbnailCache()
{
    SThumbnailCache& cache = SThumbnailCache::instance();
    std::lock_guard<std::mutex> lock(cache.mutex);
    cache.images.clear();
    cache.order.clear();
}

void CImageModel::setDecodeHook(const DecodeHook& hook)
{
    std::lock_guard<std::mutex> lock(g_hookMutex);
    g_decodeHook = hook;
}

void CImageModel::onThumbnailReady(const QString& key)
{
    // The first row showing the file is the one a view asked for.
    const auto it = m_rows.constFind(key);
    if (it == m_rows.constEnd())
        return;
    const QModelIndex changed = index(it.value());
    emit dataChanged(changed, changed, {ImageRole});
}

CImageModel::CPixmapThread::CPixmapThread()
{
    qutils::announceThreadEnd(this);
}

CImageModel::CPixmapThread::~CPixmapThread()
{
    stop();
}

void CImageModel::CPixmapThread::request(const QFileInfo& file)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopped)
        return;
    m_queue.enqueue(file);
    m_wake.notify_all();
}

void CImageModel::CPixmapThread::setThumbnailSize(const QSize& size)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_box = size;
}

void CImageModel::CPixmapThread::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped)
            return;
        m_stopped = true;
        m_wake.notify_all();
    }
    qutils::joinThread(this);
}

void CImageModel::CPixmapThread::run()
{
    SThumbnailCache& cache = SThumbnailCache::instance();
    for (;;)
    {
        QFileInfo file;
        QSize box;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            while (m_queue.isEmpty() && !m_stopped)
                m_wake.wait(lock);
            // Requests still queued are dropped.
            if (m_stopped)
                return;
            file = m_queue.dequeue();
            box = m_box;
        }

        const QString key = fileKey(file);
        {
            std::lock_guard<std::mutex> lock(cache.mutex);
            if (cache.images.contains(key))
                continue;
        }

        DecodeHook hook;
        {
            std::lock_guard<std::mutex> lock(g_hookMutex);
            hook = g_decodeHook;
        }
        if (hook)
            hook(key);

        const QImage image = loadThumbnail(file.absoluteFilePath(), box);
        {
            std::lock_guard<std::mutex> lock(cache.mutex);
            // Another model's thread may have cached it meanwhile.
            if (!cache.images.contains(key))
            {
                cache.images.insert(key, image);
                cache.order.enqueue(key);
                // One out per insertion, oldest first; lookups do not refresh an entry.
                if (cache.images.size() > m_cacheLimit.load() && !cache.order.isEmpty())
                    cache.images.remove(cache.order.dequeue());
            }
        }
        emit thumbnailReady(key);
    }
}

QImage CImageModel::CPixmapThread::loadThumbnail(const QString& path, const QSize& box)
{
    int degrees = 0;
    qutils::EXIFInfo::Properties properties;
    if (qutils::EXIFInfo::read(path, properties))
        degrees = properties.value(qutils::EXIFMetadataProperty::Orientation, 0).toInt();

    // Never by path: a photo swapped for a pipe would block this thread for good.
    QFile file;
    if (!qutils::platform::openRegularFile(path, file))
        return QImage();
    QImageReader reader(&file);
    reader.setDecideFormatFromContent(true);
    // A picture that will be turned on its side must fit the transposed box.
    const bool sideways = degrees != 0 && degrees != 180;
    const QSize target = sideways ? box.transposed() : box;
    const QSize full = reader.size();
    if (full.isValid() && target.isValid() && !target.isEmpty())
        reader.setScaledSize(full.scaled(target, Qt::KeepAspectRatio).expandedTo(QSize(1, 1)));

    QImage image = reader.read();
    if (image.isNull() || degrees == 0)
        return image;
    // The orientation is the clockwise turn that makes the picture upright;
    // rotation is clockwise on screen, whose y axis points down.
    return image.transformed(QTransform().rotate(degrees), Qt::FastTransformation);
}
