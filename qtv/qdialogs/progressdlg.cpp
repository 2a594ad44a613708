#include "progressdlg.h"

#include "qutils/debugutils.h"
#include "qutils/laterdeleter.h"
#include "qutils/taskrunner.h"
#include "qutils/tasks.h"

#include <QLabel>
#include <QPixmap>
#include <QProgressBar>
#include <QSpacerItem>
#include <QTimer>
#include <QVBoxLayout>

namespace qdialogs
{

namespace
{

// Bytes to MiB.
constexpr double BytesToMegabytes = 9.5367431640625e-07;

struct SForm
{
    QVBoxLayout* layout = nullptr;
    QLabel* titleLabel = nullptr;
    QLabel* textLabel = nullptr;
    QProgressBar* progressBar = nullptr;
};

// The form both progress widgets share; the caller may put items before it.
void buildForm(QWidget* widget, QVBoxLayout* layout, const QString& title, const QString& text, SForm& form)
{
    form.layout = layout;
    layout->addItem(new QSpacerItem(20, 40, QSizePolicy::Minimum, QSizePolicy::Expanding));

    form.titleLabel = new QLabel(title, widget);
    form.titleLabel->setObjectName(QStringLiteral("titleLabel"));
    form.titleLabel->setWordWrap(true);
    layout->addWidget(form.titleLabel);

    form.textLabel = new QLabel(text, widget);
    form.textLabel->setObjectName(QStringLiteral("textLabel"));
    form.textLabel->setWordWrap(true);
    layout->addWidget(form.textLabel);

    layout->addItem(new QSpacerItem(20, 15, QSizePolicy::Minimum, QSizePolicy::Fixed));

    form.progressBar = new QProgressBar(widget);
    form.progressBar->setObjectName(QStringLiteral("progressBar"));
    form.progressBar->setRange(0, 1);
    form.progressBar->setValue(0);
    layout->addWidget(form.progressBar);

    layout->addItem(new QSpacerItem(20, 40, QSizePolicy::Minimum, QSizePolicy::Expanding));
}

std::shared_ptr<qcontrols::CModalDialogTemplate> wrapInFrame(CProgressWidget* content, QWidget* parent,
                                                             const QString& title)
{
    // The content shows the title itself; the frame keeps it as window title only.
    std::shared_ptr<qcontrols::CModalDialogTemplate> frame(
        new qcontrols::CModalDialogTemplate(content, QString(), parent, CProgressWidget::FrameOptions),
        qutils::CLaterDeleter<qcontrols::CModalDialogTemplate>());
    frame->setWindowTitle(title);
    frame->setObjectName(QStringLiteral("progressDialog"));
    return frame;
}

} // namespace

CProgressWidget::CProgressWidget(const QString& title, const QString& text,
                                 std::shared_ptr<qutils::CTask> task, QWidget* parent)
    : QWidget(parent), m_text(text), m_task(std::move(task))
{
    setObjectName(QStringLiteral("progressWidget"));
    resize(400, 300);
    // Inside the frame the layout decides the size: keep the form's width.
    setMinimumWidth(400);

    SForm form;
    buildForm(this, new QVBoxLayout(this), title, text, form);
    m_titleLabel = form.titleLabel;
    m_textLabel = form.textLabel;
    m_progressBar = form.progressBar;
    m_progressBar->setTextVisible(false);

    if (!m_task)
    {
        QX_SELFCHECK(QStringLiteral("progress widget built without a task"));
        return;
    }
    // The task reports on the runner's thread: these calls queue to ours.
    connect(m_task.get(), &qutils::CTask::progressRange, this, &CProgressWidget::onProgressRange);
    connect(m_task.get(), &qutils::CTask::progressPos, this, &CProgressWidget::onProgressPos);

    m_runner = std::shared_ptr<qutils::CTaskRunner>(new qutils::CTaskRunner(m_task),
                                                    qutils::CLaterDeleter<qutils::CTaskRunner>());
}

CProgressWidget::~CProgressWidget() = default;

void CProgressWidget::start()
{
    if (!m_runner)
    {
        QX_SELFCHECK(QStringLiteral("progress widget started without a task"));
        return;
    }
    if (m_started)
    {
        QX_SELFCHECK(QStringLiteral("progress widget started twice"));
        return;
    }
    m_started = true;
    connect(m_runner.get(), &qutils::CTaskRunner::finished, this, &CProgressWidget::onThreadFinished);
    m_runner->runTaskAsync();
}

void CProgressWidget::onDialogStart()
{
    start();
}

bool CProgressWidget::onCloseRequest()
{
    if (m_task)
        m_task->cancel();
    // Nothing to wait for when the thread never started or has already ended.
    return !m_started || m_threadFinished;
}

void CProgressWidget::onThreadFinished()
{
    m_threadFinished = true;
    for (QWidget* w = parentWidget(); w; w = w->parentWidget())
    {
        if (auto* frame = qobject_cast<qcontrols::CModalDialogTemplate*>(w))
        {
            frame->closeWithResult(ThreadFinishedResult);
            return;
        }
    }
}

void CProgressWidget::onProgressRange(qint64 min, qint64 max)
{
    m_progressBar->setRange(static_cast<int>(min), static_cast<int>(max));
}

void CProgressWidget::onProgressPos(qint64 pos)
{
    m_progressBar->setValue(static_cast<int>(pos));
    m_progressBar->repaint();
}

void CProgressWidget::onDownloadProgressPos(qint64 pos)
{
    const double done = static_cast<double>(pos) * BytesToMegabytes;
    const double total = static_cast<double>(m_progressBar->maximum()) * BytesToMegabytes;
    m_textLabel->setText(m_text.arg(QString::number(done, 'f', 1)).arg(QString::number(total, 'f', 1)));
}

std::shared_ptr<qcontrols::CModalDialogTemplate>
CProgressWidget::createDialog(QWidget* parent, const QString& title, const QString& text,
                              std::shared_ptr<qutils::CTask> task)
{
    return wrapInFrame(new CProgressWidget(title, text, std::move(task)), parent, title);
}

std::shared_ptr<qcontrols::CModalDialogTemplate>
CProgressWidget::createDownloadDialog(QWidget* parent, const QString& title, const QString& text,
                                      std::shared_ptr<qutils::CTask> task)
{
    auto* content = new CProgressWidget(title, text, task);
    // After the ordinary position connection, so the bar is set first.
    if (task)
        connect(task.get(), &qutils::CTask::progressPos, content, &CProgressWidget::onDownloadProgressPos);
    return wrapInFrame(content, parent, title);
}

CProgressWidget* CProgressWidget::fromDialog(const qcontrols::CModalDialogTemplate* dialog)
{
    return dialog ? qobject_cast<CProgressWidget*>(dialog->contentWidget()) : nullptr;
}

CProgressWidgetSimple::CProgressWidgetSimple(const QString& title, const QString& text, int style,
                                             QWidget* parent)
    : QWidget(parent), m_style(style)
{
    setObjectName(QStringLiteral("progressWidgetSimple"));
    resize(400, 300);

    auto* layout = new QVBoxLayout(this);
    if (m_style == LoadingAnimation)
    {
        m_loadingIcon = new QLabel(this);
        m_loadingIcon->setObjectName(QStringLiteral("loadingIcon"));
        m_loadingIcon->setFixedSize(30, 30);
        m_loadingIcon->setScaledContents(true);
        layout->addWidget(m_loadingIcon, 0, Qt::AlignHCenter);
        layout->addItem(new QSpacerItem(10, 50, QSizePolicy::Minimum, QSizePolicy::Fixed));

        // A frame that is missing from the resources stays an empty pixmap:
        // the animation still runs, it just shows nothing.
        for (int i = 0; i < LoadingFrameCount; ++i)
            m_frames.append(QPixmap(QStringLiteral(":/qcontrols/loading%1.png").arg(i)));
        m_loadingIcon->setPixmap(m_frames.at(0));
        m_loadingTimer = new QTimer(this);
        m_loadingTimer->setObjectName(QStringLiteral("loadingTimer"));
        m_loadingTimer->setInterval(LoadingFrameDelay);
        connect(m_loadingTimer, &QTimer::timeout, this, &CProgressWidgetSimple::showNextFrame);
        m_loadingTimer->start();
    }

    SForm form;
    buildForm(this, layout, title, text, form);
    m_titleLabel = form.titleLabel;
    m_textLabel = form.textLabel;
    m_progressBar = form.progressBar;

    switch (m_style)
    {
    case BarWithText:
        m_progressBar->setTextVisible(true);
        break;
    case BarWithoutText:
        m_progressBar->setTextVisible(false);
        break;
    default:
        m_progressBar->setTextVisible(false);
        m_progressBar->hide();
        break;
    }
}

CProgressWidgetSimple::~CProgressWidgetSimple() = default;

void CProgressWidgetSimple::onProgressText(const QString& msg)
{
    m_textLabel->setText(msg);
}

void CProgressWidgetSimple::onProgressRange(qint64 min, qint64 max)
{
    m_progressBar->setRange(static_cast<int>(min), static_cast<int>(max));
}

void CProgressWidgetSimple::onProgressPos(qint64 pos)
{
    m_progressBar->setValue(static_cast<int>(pos));
    m_progressBar->repaint();
}

void CProgressWidgetSimple::showNextFrame()
{
    m_frame = (m_frame + 1) % LoadingFrameCount;
    m_loadingIcon->setPixmap(m_frames.at(m_frame));
}

} // namespace qdialogs
