#pragma once

#include "qcontrols/modaldialogtemplate.h"

#include <QString>
#include <QVector>
#include <QWidget>

#include <memory>

class QLabel;
class QPixmap;
class QProgressBar;
class QTimer;

namespace qutils
{
class CTask;
class CTaskRunner;
} // namespace qutils

namespace qdialogs
{

// Runs one task on a thread of its own inside the modal frame and closes the
// frame when that thread is done. A close request cancels the task but keeps
// the frame up until the task has actually returned.
class CProgressWidget : public QWidget, public qcontrols::CModalDialogContent
{
    Q_OBJECT

public:
    // The frame's result once the task's thread has ended, cancelled or not;
    // callers ask the task whether it was cancelled.
    static constexpr int ThreadFinishedResult = 3;
    // Frame options of the progress dialogs.
    static constexpr int FrameOptions = qcontrols::CModalDialogTemplate::CancelButton;

    CProgressWidget(const QString& title, const QString& text, std::shared_ptr<qutils::CTask> task,
                    QWidget* parent = nullptr);
    ~CProgressWidget() override;

    // Starts the runner; the frame calls it when it is first shown.
    void start();
    bool isStarted() const { return m_started; }
    bool isThreadFinished() const { return m_threadFinished; }

    const std::shared_ptr<qutils::CTask>& task() const { return m_task; }
    // The caller collects an escaped exception here after the dialog closed.
    const std::shared_ptr<qutils::CTaskRunner>& runner() const { return m_runner; }

    void onDialogStart() override;
    bool onCloseRequest() override;

    // A frame over parent running the task; the task starts when it is shown.
    static std::shared_ptr<qcontrols::CModalDialogTemplate> createDialog(QWidget* parent,
                                                                         const QString& title,
                                                                         const QString& text,
                                                                         std::shared_ptr<qutils::CTask> task);
    // As createDialog(); text is a format whose %1 and %2 become the position
    // and the maximum in MB with one decimal ("%1 of %2 MB").
    static std::shared_ptr<qcontrols::CModalDialogTemplate>
    createDownloadDialog(QWidget* parent, const QString& title, const QString& text,
                         std::shared_ptr<qutils::CTask> task);
    // The progress widget inside a frame made by the functions above.
    static CProgressWidget* fromDialog(const qcontrols::CModalDialogTemplate* dialog);

public slots:
    void onThreadFinished();
    void onProgressRange(qint64 min, qint64 max);
    void onProgressPos(qint64 pos);
    void onDownloadProgressPos(qint64 pos);

private:
    QString m_text;
    std::shared_ptr<qutils::CTask> m_task;
    std::shared_ptr<qutils::CTaskRunner> m_runner;
    QLabel* m_titleLabel = nullptr;
    QLabel* m_textLabel = nullptr;
    QProgressBar* m_progressBar = nullptr;
    bool m_started = false;
    bool m_threadFinished = false;
};

// Title, text and a bar or a busy animation, driven from outside through its
// slots.
class CProgressWidgetSimple : public QWidget
{
    Q_OBJECT

public:
    enum EStyle
    {
        BarWithText = 0,
        BarWithoutText = 1,
        LoadingAnimation = 2,
        // Any other value: the text alone.
        TextOnly = 3,
    };

    static constexpr int LoadingFrameCount = 8;
    static constexpr int LoadingFrameDelay = 10;

    CProgressWidgetSimple(const QString& title, const QString& text, int style, QWidget* parent = nullptr);
    ~CProgressWidgetSimple() override;

    int style() const { return m_style; }
    // The animation frame shown now; -1 without the animation.
    int loadingFrame() const { return m_loadingTimer ? m_frame : -1; }

public slots:
    void onProgressText(const QString& msg);
    void onProgressRange(qint64 min, qint64 max);
    void onProgressPos(qint64 pos);

private:
    void showNextFrame();

    int m_style;
    QLabel* m_titleLabel = nullptr;
    QLabel* m_textLabel = nullptr;
    QProgressBar* m_progressBar = nullptr;
    QLabel* m_loadingIcon = nullptr;
    QTimer* m_loadingTimer = nullptr;
    QVector<QPixmap> m_frames;
    int m_frame = 0;
};

} // namespace qdialogs
