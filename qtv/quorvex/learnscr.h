#pragma once

#include "workingpage.h"

#include <QFileInfo>
#include <QFileInfoList>
#include <QObject>
#include <QWidget>

#include <atomic>

class CGalleryWidget;
class CStatisticsDlg;
class QLabel;
class QPushButton;
class QThread;

// Runs the engine's fingerprint creation on the worker thread and turns its
// progress calls into per-photo signals.
class CLearnWorker : public QObject
{
    Q_OBJECT

public:
    CLearnWorker(const QFileInfoList& files, const QFileInfo& destination);

    int currentIndex() const { return m_currentIndex.load(); }
    bool isDone() const { return m_done.load(); }

    // The message for a run the engine refused at photo index: its text, then
    // the photo by name and, for a size refusal, the sizes that differ.
    static QString refusalMessage(const QString& engineText, const QFileInfoList& files, int index,
                                  bool sizeRefused);

signals:
    void imageProcessed(int index, float nmse);
    void imageProcessingStarted(int index);
    void finished(int index, bool success, QString errorMessage);

public slots:
    void onWork();

private:
    // One learning progress call: (percent, nmse, seconds).
    void progress(int code, float nmse, float seconds);

    const QFileInfoList m_files;
    const QFileInfo m_destination;
    std::atomic<int> m_currentIndex{-1};
    std::atomic<bool> m_done{false};
};

// The learn screen: the reference photos in a gallery coloured as they are
// learned and the quality chart growing beside it. Learning starts at once
// and cannot be cancelled; success moves on to the result page, a failure
// marks the photo that failed.
class CLearnScr : public QWidget, public CWorkingPage
{
    Q_OBJECT

public:
    CLearnScr(const QFileInfoList& files, const QFileInfo& destination, QWidget* parent = nullptr);
    ~CLearnScr() override;

    bool isWorking() const override;

    CGalleryWidget* gallery() const { return m_gallery; }
    CStatisticsDlg* statistics() const { return m_statistics; }
    const CLearnWorker* worker() const { return m_worker; }
    QFileInfo destination() const { return m_destination; }

signals:
    void startTeaching();

public slots:
    void onImageProcessingStarted(int index);
    void onImageProcessFinished(int index, float nmse);
    void onTeachingFinished(int index, bool success, QString errorMessage);

private:
    QFileInfoList m_files;
    QFileInfo m_destination;
    CGalleryWidget* m_gallery = nullptr;
    QLabel* m_title = nullptr;
    QLabel* m_refusal = nullptr;
    QPushButton* m_home = nullptr;
    QPushButton* m_back = nullptr;
    CStatisticsDlg* m_statistics = nullptr;
    QThread* m_thread = nullptr;
    CLearnWorker* m_worker = nullptr;
};
