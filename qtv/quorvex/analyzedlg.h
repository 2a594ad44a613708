#pragma once

#include "fingerprint.h"
#include "workingpage.h"

#include <QElapsedTimer>
#include <QFileInfoList>
#include <QWidget>

#include <array>
#include <memory>

class CGalleryWidget;
class CMultipleThreadAnalyzer;
class QComboBox;
class QLabel;
namespace qcontrols
{
class CNavigationButton;
}

// One analysis: the questioned photos in the gallery, the analyzer's pool
// matching them, each finished photo sorted into its probability class, a
// counter per class, progress with the time remaining, a filter by class and
// the report at the end (on request, or at once when a report path is given).
class CAnalyzeDlg : public QWidget, public CWorkingPage
{
    Q_OBJECT

public:
    // Filter entries of the combo, in order; the index is the report's filter type.
    enum EFilter
    {
        FilterAll = 0,
        FilterVeryHigh,
        FilterHigh,
        FilterMedium,
        FilterLow,
        FilterNotFound,
        FilterNotProcessed,
        // After the others, so the report's filter types 0..6 keep their meaning.
        FilterNotCompared,
    };

    // fingerprint: the record to match against; null loads the one named by
    // "lastRecognizer".
    CAnalyzeDlg(const QFileInfoList& files, const QString& reportPath, bool skipDifferentCamera,
                QWidget* parent = nullptr, std::shared_ptr<CFingerprint> fingerprint = nullptr);
    ~CAnalyzeDlg() override;

    bool isWorking() const override { return !m_finished; }
    void cancelWork() override;

    bool isFinished() const { return m_finished; }
    CGalleryWidget* gallery() const { return m_gallery; }
    CMultipleThreadAnalyzer* analyzer() const { return m_analyzer; }
    QComboBox* filterCombo() const { return m_filter; }
    // The counters, one per class of finished photo, in this order.
    enum ECounter
    {
        CountVeryHigh = 0,
        CountHigh,
        CountMedium,
        CountLow,
        CountNotFound,
        CountNotCompared,
        CounterCount,
    };
    QVector<int> counters() const;
    // The summary shown when the analysis ends (also kept on the page).
    QString summary() const { return m_summary; }
    // True once the run has ended with photos never taken because of a cancel.
    bool wasCancelled() const { return m_cancelled; }

    // The start of the analyzer after construction, in milliseconds (tests shorten it).
    static void setStartDelay(int milliseconds);

    // The progress line's remaining time for this much elapsed after this many of total.
    static qint64 remainingMilliseconds(qint64 elapsedMs, int processed, int total);

public slots:
    void onSaveReport();
    void filter(int index);
    void onSingleAnalyzeStarted(int index);
    void onSingleAnalyzeFinished(int index);
    void finish();
    void updateFilter();

private:
    void onCancelClicked();
    bool selectionIsEmpty(int index) const;
    // The photos of the class a filter entry shows; -1 for "All" and "Not processed".
    int classCount(int index) const;
    int processedCount() const;
    void generateReport(const QString& path, const QFileInfoList& photos);

    QFileInfoList m_files;
    qcontrols::CNavigationButton* m_saveReport = nullptr;
    qcontrols::CNavigationButton* m_cancel = nullptr;
    qcontrols::CNavigationButton* m_home = nullptr;
    QString m_folderPath;
    CGalleryWidget* m_gallery = nullptr;
    QLabel* m_progressLabel = nullptr;
    QLabel* m_titleLabel = nullptr;
    QLabel* m_pathLabel = nullptr;
    QLabel* m_summaryLabel = nullptr;
    QComboBox* m_filter = nullptr;
    std::array<int, CounterCount> m_counts{};
    CMultipleThreadAnalyzer* m_analyzer = nullptr;
    std::shared_ptr<CFingerprint> m_fingerprint;
    QElapsedTimer m_timer;
    QString m_reportPath;
    bool m_skipDifferentCamera = false;
    bool m_finished = false;
    bool m_cancelled = false;
    QString m_summary;
};
