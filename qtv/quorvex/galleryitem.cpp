#include "galleryitem.h"

#include "gallerydelegate.h"
#include "galleryfiltermodel.h"
#include "imagemodel.h"

#include <QDir>
#include <QEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QParallelAnimationGroup>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>
#include <QtMath>

namespace
{
// The verdict band, painted by the delegate's own code so the live tile and
// the painted ones read alike.
class CVerdictBand : public QWidget
{
public:
    explicit CVerdictBand(QWidget* parent)
        : QWidget(parent)
    {
        setObjectName(QStringLiteral("verdictBand"));
        setFixedHeight(CGalleryDelegate::VerdictHeight);
        setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
    }

    void setVerdict(const CGalleryDelegate::SVerdict& verdict)
    {
        m_verdict = verdict;
        setAccessibleName(verdict.text);
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        CGalleryDelegate::paintVerdict(&painter, rect().adjusted(0, 1, 0, -1), m_verdict, font());
    }

private:
    CGalleryDelegate::SVerdict m_verdict;
};
} // namespace

CGalleryItem::CGalleryItem(QWidget* parent)
    : QFrame(parent)
{
    setObjectName(QStringLiteral("galleryItem"));
    setAttribute(Qt::WA_TranslucentBackground, false);

    m_content = new QFrame(this);
    m_content->setObjectName(QStringLiteral("content"));
    m_content->setProperty("state", QStringLiteral("normal"));
    auto* layout = new QVBoxLayout(m_content);
    layout->setContentsMargins(3, 3, 3, 3);
    layout->setSpacing(0);

    m_image = new QLabel(m_content);
    m_image->setObjectName(QStringLiteral("image"));
    m_image->setAlignment(Qt::AlignCenter);
    m_image->setMinimumSize(1, 1);
    m_image->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Ignored);
    layout->addWidget(m_image, 1);

    m_loadingIcon = new QLabel(m_image);
    m_loadingIcon->setObjectName(QStringLiteral("loadingIcon"));
    m_loadingIcon->hide();

    m_name = new QLabel(m_content);
    m_name->setObjectName(QStringLiteral("fileName"));
    m_name->setAlignment(Qt::AlignCenter);
    m_name->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
    layout->addWidget(m_name);

    m_verdict = new CVerdictBand(m_content);
    layout->addWidget(m_verdict);

    m_actions = new QWidget(m_content);
    m_actions->setObjectName(QStringLiteral("actionsPanel"));
    auto* actionsLayout = new QVBoxLayout(m_actions);
    actionsLayout->setContentsMargins(0, 2, 0, 0);
    actionsLayout->setSpacing(1);
    const auto addAction = [this, actionsLayout](const QString& name, const QString& text, void (CGalleryItem::*signal)()) {
        auto* button = new QPushButton(text, m_actions);
        button->setObjectName(name);
        button->setFlat(true);
        button->setCursor(Qt::PointingHandCursor);
        button->setFocusPolicy(Qt::NoFocus);
        connect(button, &QPushButton::clicked, this, signal);
        actionsLayout->addWidget(button);
        return button;
    };
    addAction(QStringLiteral("openFolderButton"), tr("Open folder"), &CGalleryItem::openFolderClicked);
    addAction(QStringLiteral("externalViewerButton"), tr("Show in external viewer"),
              &CGalleryItem::showExternalViewerClicked);
    m_detailButton = addAction(QStringLiteral("detailResultButton"), tr("Show detail result"),
                               &CGalleryItem::showDetailResultClicked);
    m_detailButton->hide();
    // Collapsed until the pointer rests on the tile.
    m_actions->setMinimumHeight(0);
    m_actions->setMaximumHeight(0);
    layout->addWidget(m_actions);

    m_actionsAnimation = new QPropertyAnimation(m_actions, "maximumHeight", this);
    m_actionsAnimation->setDuration(AnimationDuration);
    m_contentAnimation = new QPropertyAnimation(m_content, "geometry", this);
    m_contentAnimation->setDuration(AnimationDuration + 50);
    m_animation = new QParallelAnimationGroup(this);
    m_animation->addAnimation(m_actionsAnimation);
    m_animation->addAnimation(m_contentAnimation);

    m_frameTimer.setInterval(FrameIntervalMs);
    connect(&m_frameTimer, &QTimer::timeout, this, &CGalleryItem::nextFrame);

    installEventFilter(this);
    m_image->installEventFilter(this);
    setMouseTracking(true);
}

void CGalleryItem::setIndex(const QModelIndex& index, const QRect& rect)
{
    const bool sameIndex = m_index.isValid() && QModelIndex(m_index) == index;
    m_index = index;
    setGeometry(rect);
    setText(index.data(CImageModel::FileNameRole).toString());
    setDescription(index.data(CImageModel::DescriptionRole).toString());
    setImage(index.data(CImageModel::ImageRole).value<QPixmap>());
    setState(CGalleryFilterModel::stateValue(index.data(CImageModel::ItemStateRole)));
    setHasResult(index.data(CImageModel::ResultRole).isValid());
    const CGalleryDelegate::SVerdict verdict = CGalleryDelegate::verdict(index);
    static_cast<CVerdictBand*>(m_verdict)->setVerdict(verdict);
    m_name->setToolTip(QDir::toNativeSeparators(filePath()));
    const bool error = verdict.look == CGalleryDelegate::ELook::Error;
    if (m_content->property("error").toBool() != error)
    {
        m_content->setProperty("error", error);
        m_content->style()->unpolish(m_content);
        m_content->style()->polish(m_content);
    }
    if (!sameIndex)
    {
        // A tile taken over for another photo starts collapsed.
        m_animation->stop();
        m_expanded = false;
        m_actions->setMaximumHeight(0);
        m_content->setGeometry(collapsedContentRect());
    }
}

QString CGalleryItem::filePath() const
{
    return m_index.data(CImageModel::PathRole).toString();
}

void CGalleryItem::setText(const QString& text)
{
    // The end of a name tells photos apart (camera model, unit, number).
    m_name->setText(m_name->fontMetrics().elidedText(text, Qt::ElideLeft, qMax(10, width() - 12)));
    m_name->setToolTip(text);
}

void CGalleryItem::setDescription(const QString& description)
{
    m_image->setToolTip(description);
}

void CGalleryItem::setImage(const QPixmap& image)
{
    m_pixmap = image;
    fitImage();
}

void CGalleryItem::fitImage()
{
    // The picture shrinks with the room the opening actions row leaves it.
    const QSize room = m_image->size();
    if (m_pixmap.isNull() || room.isEmpty() || (m_pixmap.width() <= room.width() && m_pixmap.height() <= room.height()))
        m_image->setPixmap(m_pixmap);
    else
        m_image->setPixmap(m_pixmap.scaled(room, Qt::KeepAspectRatio, Qt::SmoothTransformation));
}

void CGalleryItem::setState(int state)
{
    m_state = state;
    m_loadingIcon->hide();
    m_frameTimer.stop();
    m_content->setProperty("state", CGalleryDelegate::stateStyle(state));
    if (state == CImageModel::Processing)
    {
        // Drawn over the whole picture, as the painted tiles draw it.
        m_loadingIcon->setGeometry(m_image->rect());
        m_loadingIcon->setPixmap(loadingFrame(m_frame, m_loadingIcon->size()));
        m_loadingIcon->show();
        m_frameTimer.start();
    }
    // A changed dynamic property takes effect only once the style is re-applied.
    m_content->style()->unpolish(m_content);
    m_content->style()->polish(m_content);
    m_content->update();
}

void CGalleryItem::setHasResult(bool hasResult)
{
    m_detailButton->setVisible(hasResult);
}

void CGalleryItem::nextFrame()
{
    m_frame = (m_frame + 1) % LoadingFrames;
    if (m_loadingIcon->isVisible())
        m_loadingIcon->setPixmap(loadingFrame(m_frame, m_loadingIcon->size()));
}

QPixmap CGalleryItem::loadingFrame(int frame, const QSize& size)
{
    QPixmap pixmap(size.expandedTo(QSize(16, 16)));
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    CGalleryDelegate::paintLoading(&painter, pixmap.rect(), frame);
    return pixmap;
}

QRect CGalleryItem::collapsedContentRect() const
{
    // Exactly where the delegate paints the tile, so taking it over is seamless.
    return rect().adjusted(CGalleryDelegate::TileMargin, CGalleryDelegate::TileMargin,
                           -CGalleryDelegate::TileMargin, -CGalleryDelegate::TileMargin);
}

void CGalleryItem::expand()
{
    if (m_expanded)
        return;
    m_expanded = true;
    animateTo(m_actions->sizeHint().height(), QRect(0, 0, width(), height()));
}

void CGalleryItem::collapse()
{
    if (!m_expanded)
        return;
    m_expanded = false;
    animateTo(0, collapsedContentRect());
}

void CGalleryItem::animateTo(int actionsHeight, const QRect& contentRect)
{
    m_animation->stop();
    m_actionsAnimation->setStartValue(m_actions->maximumHeight());
    m_actionsAnimation->setEndValue(actionsHeight);
    m_contentAnimation->setStartValue(m_content->geometry());
    m_contentAnimation->setEndValue(contentRect);
    m_animation->start();
}

bool CGalleryItem::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == this)
    {
        if (event->type() == QEvent::Enter)
            expand();
        else if (event->type() == QEvent::Leave)
        {
            collapse();
            emit mouseLeft(m_index);
        }
        else if (event->type() == QEvent::Resize && !m_expanded)
            m_content->setGeometry(collapsedContentRect());
    }
    else if (watched == m_image && event->type() == QEvent::Resize)
    {
        fitImage();
        if (m_loadingIcon->isVisible())
        {
            m_loadingIcon->setGeometry(m_image->rect());
            m_loadingIcon->setPixmap(loadingFrame(m_frame, m_loadingIcon->size()));
        }
    }
    return QFrame::eventFilter(watched, event);
}

void CGalleryItem::mousePressEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton)
        emit pressed(m_index);
    QFrame::mousePressEvent(event);
}

void CGalleryItem::mouseDoubleClickEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton)
        emit doubleClicked(filePath());
    QFrame::mouseDoubleClickEvent(event);
}
