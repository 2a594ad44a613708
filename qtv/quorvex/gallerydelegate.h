#pragma once

#include <QColor>
#include <QSize>
#include <QStyledItemDelegate>
#include <QVariant>

// Paints a gallery tile straight from the model's roles: the thumbnail, the
// file name, a frame coloured by the processing state and the verdict band.
// Painting instead of a widget per row keeps a folder of thousands of photos
// cheap to scroll.
class CGalleryDelegate : public QStyledItemDelegate
{
    Q_OBJECT

public:
    static constexpr int LoadingFrames = 8;
    static constexpr int TileMargin = 4;
    static constexpr int NameHeight = 22;
    static constexpr int VerdictHeight = 52;

    // How a tile reads, finer than the model state: a failed photo is either
    // not found (compared, no match) or an error (never compared properly).
    enum class ELook
    {
        Plain,
        Waiting,
        Processing,
        VeryHigh,
        High,
        Medium,
        Low,
        Learned,
        NotFound,
        Error,
        NotCompared,
    };

    // What the verdict band of a tile says: a badge letter, the verdict (the
    // class, "No match", the failure's status text or "Not compared: ..."),
    // and a detail line (the PCE, or the reason).
    struct SVerdict
    {
        ELook look = ELook::Plain;
        QString badge;
        QString text;
        QString detail;
    };

    explicit CGalleryDelegate(QObject* parent = nullptr);

    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

    QSize tileSize() const { return m_tileSize; }
    // The picture area of a tile; the model decodes thumbnails to this size.
    QSize thumbnailSize() const;

    // The loading indicator's current frame, 0 … LoadingFrames - 1.
    int frame() const { return m_frame; }
    void nextFrame() { m_frame = (m_frame + 1) % LoadingFrames; }

    // Whether a tile in the processing state was painted since the last call;
    // the view animates only while one is on screen.
    bool takePaintedProcessing();

    // The style name of a state, as the application's style sheet knows it.
    static QString stateStyle(int state);
    // The state's colour, taken from the style sheet's constants so painted
    // tiles and the live tile under the pointer look the same.
    static QColor stateColor(int state);

    static SVerdict verdict(int state, const QVariant& result, const QString& description);
    static SVerdict verdict(const QModelIndex& index);
    // The band's colour; the frame of a tile uses it too.
    static QColor lookColor(ELook look);
    // The band under the name: nothing for a photo not in an analysis yet.
    static void paintVerdict(QPainter* painter, const QRect& rect, const SVerdict& verdict,
                             const QFont& font);

    // Eight dots on a circle, the frame's dot brightest.
    static void paintLoading(QPainter* painter, const QRect& rect, int frame);

private:
    QSize m_tileSize{176, 208};
    int m_frame = 0;
    mutable bool m_paintedProcessing = false;
};
