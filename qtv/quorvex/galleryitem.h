#pragma once

#include <QFrame>
#include <QPersistentModelIndex>
#include <QPixmap>
#include <QTimer>

class QLabel;
class QParallelAnimationGroup;
class QPropertyAnimation;
class QPushButton;

// The live tile of the photo under the pointer. Only one exists per gallery:
// every other tile is painted by the delegate in the same colours, so a folder
// of thousands of photos costs no widget per row. Over its tile it shows the
// photo, its name, its state colour, its verdict band, the loading indicator and the actions row
// that slides open while the pointer rests on it.
class CGalleryItem : public QFrame
{
    Q_OBJECT

public:
    static constexpr int AnimationDuration = 150;
    static constexpr int LoadingFrames = 8;
    static constexpr int FrameIntervalMs = 100;

    explicit CGalleryItem(QWidget* parent = nullptr);

    // Fills the tile from the model's roles and places it over rect.
    void setIndex(const QModelIndex& index, const QRect& rect);
    QPersistentModelIndex index() const { return m_index; }
    QString filePath() const;

    void setText(const QString& text);
    void setDescription(const QString& description);
    void setImage(const QPixmap& image);
    // Styles the tile by its processing state and runs the loading indicator
    // only while the photo is being processed.
    void setState(int state);
    int state() const { return m_state; }

    // Whether the photo has a result the detail window can show.
    void setHasResult(bool hasResult);

    QWidget* contentWidget() const { return m_content; }
    QWidget* verdictBand() const { return m_verdict; }
    QWidget* actionsPanel() const { return m_actions; }
    QLabel* loadingIcon() const { return m_loadingIcon; }
    // The running hover animations (for the owner's tests and screenshots).
    QPropertyAnimation* actionsAnimation() const { return m_actionsAnimation; }
    QPropertyAnimation* contentAnimation() const { return m_contentAnimation; }

    // Opens or closes the actions row as the pointer enters or leaves.
    void expand();
    void collapse();

    // One loading frame, drawn rather than shipped as images so it follows
    // the interface scale.
    static QPixmap loadingFrame(int frame, const QSize& size);

signals:
    void openFolderClicked();
    void showExternalViewerClicked();
    void showDetailResultClicked();
    void repaintRequest();
    void doubleClicked(const QString& filePath);
    void mouseLeft(const QModelIndex& index);
    void pressed(const QModelIndex& index);

public slots:
    void nextFrame();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;

private:
    void fitImage();
    void animateTo(int actionsHeight, const QRect& contentRect);
    QRect collapsedContentRect() const;

    QPersistentModelIndex m_index;
    QFrame* m_content = nullptr;
    QLabel* m_image = nullptr;
    QLabel* m_name = nullptr;
    QWidget* m_verdict = nullptr;
    QLabel* m_loadingIcon = nullptr;
    QWidget* m_actions = nullptr;
    QPushButton* m_detailButton = nullptr;
    QPropertyAnimation* m_actionsAnimation = nullptr;
    QPropertyAnimation* m_contentAnimation = nullptr;
    QParallelAnimationGroup* m_animation = nullptr;
    QTimer m_frameTimer;
    QPixmap m_pixmap;
    int m_state = 2;
    int m_frame = 0;
    bool m_expanded = false;
};
