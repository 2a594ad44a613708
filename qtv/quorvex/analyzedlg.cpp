#include "analyzedlg.h"

#include "gallerywidget.h"
#include "galleryfiltermodel.h"
#include "generatortask.h"
#include "imagemodel.h"
#include "mainwindow.h"
#include "multiplethreadanalyzer.h"
#include "resultclass.h"
#include "settings.h"

#include "qcontrols/filechooser.h"
#include "qcontrols/messageboxfactory.h"
#include "qcontrols/navigationbutton.h"
#include "qdialogs/progressdlg.h"
#include "qutils/appsettings.h"
#include "qutils/debugutils.h"
#include "qutils/exception.h"
#include "qutils/taskrunner.h"

#include <QComboBox>
#include <QDir>
#include <QHBoxLayout>
#include <QLabel>
#include <QResizeEvent>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>

#include <atomic>
#include <numeric>

using qutils::CQuorvexAPI;

namespace
{

std::atomic<int> g_startDelay{500};

// A label that shows its text elided in the middle to whatever width it has.
class CElidedLabel : public QLabel
{
public:
    explicit CElidedLabel(const QString& text, QWidget* parent) : QLabel(parent), m_full(text)
    {
        setMinimumWidth(1);
        setToolTip(text);
        setText(text);
    }

protected:
    void resizeEvent(QResizeEvent* event) override
    {
        QLabel::resizeEvent(event);
        setText(fontMetrics().elidedText(m_full, Qt::ElideMiddle, qMax(1, width())));
    }

private:
    QString m_full;
};

constexpr int AllMask = 0xFFFF;
constexpr int NotProcessedMask = ~(CImageModel::SuccessVeryHigh | CImageModel::SuccessHigh | CImageModel::SuccessMedium |
                                   CImageModel::SuccessLow | CImageModel::Fail | CImageModel::NotCompared);

} // namespace

CAnalyzeDlg::CAnalyzeDlg(const QFileInfoList& files, const QString& reportPath, bool skipDifferentCamera,
                         QWidget* parent, std::shared_ptr<CFingerprint> fingerprint)
    : QWidget(parent), m_files(files), m_fingerprint(std::move(fingerprint)), m_reportPath(reportPath),
      m_skipDifferentCamera(skipDifferentCamera)
{
    setObjectName(QStringLiteral("analyzeDlg"));
    resize(1044, 732);
    const double scale = CMainWindow::currentScale();
    const int gap = qRound(12 * scale);
    auto* layout = new QVBoxLayout(this);
    layout->setSpacing(6);
    layout->setContentsMargins(11, 11, 11, 11);

    m_saveReport = new qcontrols::CNavigationButton(tr("Generate Report"), tr("All %n photo(s) selected", nullptr, m_files.size()),
                                                    QIcon(QStringLiteral(":/Quorvex/save.png")),
                                                    QStringLiteral("btnNavigateSaveReport"), this);
    m_cancel = new qcontrols::CNavigationButton(tr("Cancel"), QString(), QIcon(QStringLiteral(":/Quorvex/cancel.png")),
                                                QStringLiteral("btnNavigateCancel"), this);
    m_home = new qcontrols::CNavigationButton(tr("Home"), QString(), QIcon(QStringLiteral(":/Quorvex/home.png")),
                                              QStringLiteral("btnNavigateHome"), this);
    m_saveReport->hide();
    m_home->hide();

    m_folderPath = QDir::toNativeSeparators(CSettings::lastAnalyzePath().absolutePath());
    m_titleLabel = new QLabel(tr("Analyzing selected photos"), this);
    m_titleLabel->setObjectName(QStringLiteral("titleLabel"));
    m_pathLabel = new CElidedLabel(m_folderPath, this);
    m_pathLabel->setObjectName(QStringLiteral("pathLabel"));
    m_progressLabel = new QLabel(this);
    m_progressLabel->setObjectName(QStringLiteral("progressLabel"));

    auto* top = new QHBoxLayout;
    auto* titles = new QVBoxLayout;
    titles->addWidget(m_titleLabel);
    titles->addWidget(m_pathLabel);
    top->addLayout(titles, 1);
    top->addSpacing(gap);
    top->addWidget(m_saveReport);
    top->addWidget(m_cancel);
    top->addWidget(m_home);
    layout->addLayout(top);
    layout->addSpacing(gap);

    // The labelled filter: "Showing: <class>".
    auto* filterRow = new QHBoxLayout;
    auto* filterIcon = new QLabel(this);
    filterIcon->setPixmap(QIcon(QStringLiteral(":/Quorvex/fingerprint.png")).pixmap(16, 16));
    filterRow->addWidget(filterIcon);
    auto* showing = new QLabel(tr("Showing") + QStringLiteral(": "), this);
    showing->setObjectName(QStringLiteral("filterLabel"));
    filterRow->addWidget(showing);
    m_filter = new QComboBox(this);
    m_filter->setObjectName(QStringLiteral("filterCombo"));
    m_filter->addItem(tr("All (%1)").arg(m_files.size()), AllMask);
    m_filter->addItem(tr("Very high probability (0)"), static_cast<int>(CImageModel::SuccessVeryHigh));
    m_filter->addItem(tr("High probability (0)"), static_cast<int>(CImageModel::SuccessHigh));
    m_filter->addItem(tr("Medium probability (0)"), static_cast<int>(CImageModel::SuccessMedium));
    m_filter->addItem(tr("Low probability (0)"), static_cast<int>(CImageModel::SuccessLow));
    m_filter->addItem(tr("Fingerprint not found (0)"), static_cast<int>(CImageModel::Fail));
    m_filter->addItem(tr("Not processed (%1)").arg(m_files.size()), NotProcessedMask);
    m_filter->addItem(tr("Not compared (0)"), static_cast<int>(CImageModel::NotCompared));
    m_filter->setMinimumWidth(qRound(240 * scale));
    filterRow->addWidget(m_filter);
    filterRow->addSpacing(gap);
    filterRow->addWidget(m_progressLabel);
    // Takes the progress line's place at the end and stays there, also after
    // the summary box is closed or when the report is made at once.
    m_summaryLabel = new QLabel(this);
    m_summaryLabel->setObjectName(QStringLiteral("summaryLabel"));
    m_summaryLabel->setTextFormat(Qt::RichText);
    m_summaryLabel->setWordWrap(true);
    m_summaryLabel->hide();
    filterRow->addWidget(m_summaryLabel, 1);
    // Keeps the row in place when the progress line is hidden at the end.
    filterRow->addStretch(1);
    layout->addLayout(filterRow);

    m_gallery = new CGalleryWidget(this);
    m_gallery->setFiles(m_files);
    layout->addWidget(m_gallery, 1);
    connect(m_filter, QOverload<int>::of(&QComboBox::currentIndexChanged), this, &CAnalyzeDlg::filter);
    for (int i = 0; i < m_files.size(); ++i)
        m_gallery->imageModel()->setState(i, CImageModel::Waiting);

    connect(m_home, &QPushButton::clicked, this, [this] {
        if (CMainWindow* window = CMainWindow::of(this))
            window->showIntroPage();
    });
    connect(m_saveReport, &QPushButton::clicked, this, &CAnalyzeDlg::onSaveReport);
    connect(m_cancel, &QPushButton::clicked, this, &CAnalyzeDlg::onCancelClicked);

    if (!m_fingerprint)
    {
        CQuorvexAPI::EStatus status = CQuorvexAPI::Invalid;
        m_fingerprint = CFingerprint::load(CSettings::lastRecognizer(), &status);
    }
    // Read now, while no engine call runs: the pool starts later.
    qutils::CAppSettings::applyScaleSearch(qutils::CAppSettings::scaleSearch());
    m_analyzer = new CMultipleThreadAnalyzer(m_files, m_fingerprint, m_skipDifferentCamera, this);
    connect(m_analyzer, &CMultipleThreadAnalyzer::finished, this, &CAnalyzeDlg::finish);
    connect(m_analyzer, &CMultipleThreadAnalyzer::imageStarted, this, &CAnalyzeDlg::onSingleAnalyzeStarted);
    connect(m_analyzer, &CMultipleThreadAnalyzer::imageFinished, this, &CAnalyzeDlg::onSingleAnalyzeFinished);

    updateFilter();
    m_timer.restart();
    QTimer::singleShot(g_startDelay.load(), m_analyzer, &CMultipleThreadAnalyzer::start);
}

CAnalyzeDlg::~CAnalyzeDlg()
{
    // The analyzer cancels and joins its pool when it goes with the dialog.
    if (m_analyzer)
        m_analyzer->cancel();
}

void CAnalyzeDlg::setStartDelay(int milliseconds)
{
    g_startDelay.store(milliseconds);
}

void CAnalyzeDlg::cancelWork()
{
    m_analyzer->cancel();
}

QVector<int> CAnalyzeDlg::counters() const
{
    return QVector<int>(m_counts.begin(), m_counts.end());
}

int CAnalyzeDlg::processedCount() const
{
    return std::accumulate(m_counts.begin(), m_counts.end(), 0);
}

int CAnalyzeDlg::classCount(int index) const
{
    if (index >= FilterVeryHigh && index <= FilterNotFound)
        return m_counts.at(static_cast<size_t>(CountVeryHigh + index - FilterVeryHigh));
    if (index == FilterNotCompared)
        return m_counts.at(CountNotCompared);
    return -1;
}

void CAnalyzeDlg::onSingleAnalyzeStarted(int index)
{
    m_gallery->imageModel()->setState(index, CImageModel::Processing);
}

void CAnalyzeDlg::onSingleAnalyzeFinished(int index)
{
    if (index < 0 || index >= m_files.size())
        return;
    const CQuorvexAPI::SAnalysisResult result = m_analyzer->result(m_files.at(index).absoluteFilePath());
    if (isNotCompared(result))
    {
        ++m_counts[CountNotCompared];
        QString text = QStringLiteral("<b>%1</b>").arg(notComparedTitle(result).toHtmlEscaped());
        if (!result.reason.isEmpty())
            text += QStringLiteral("<br />") + result.reason.toHtmlEscaped();
        m_gallery->imageModel()->setDescription(index, text);
        m_gallery->imageModel()->setState(index, CImageModel::NotCompared);
        m_gallery->imageModel()->setResult(index, QVariant::fromValue(result));
        updateFilter();
        return;
    }
    // Counted as "not found" on matched alone, before the status is looked at,
    // so a photo that failed shows its error yet counts with the no-matches.
    if (!result.matched)
        ++m_counts[CountNotFound];
    CImageModel::State state = CImageModel::Fail;
    QString text;
    if (result.status != CQuorvexAPI::Success)
    {
        text = QStringLiteral("<b>%1</b>").arg(CQuorvexAPI::statusText(result.status));
        if (!result.reason.isEmpty())
            text += QStringLiteral("<br />") + result.reason.toHtmlEscaped();
    }
    else if (!result.matched)
        text = tr("<b>No match</b>");
    else
    {
        const EResultClass resultClass = classifyResult(result);
        switch (resultClass)
        {
        case EResultClass::VeryHigh:
            ++m_counts[CountVeryHigh];
            break;
        case EResultClass::High:
            ++m_counts[CountHigh];
            break;
        case EResultClass::Medium:
            ++m_counts[CountMedium];
            break;
        default:
            ++m_counts[CountLow];
            break;
        }
        state = static_cast<CImageModel::State>(resultClassState(resultClass));
        text = tr("<b>Match: %1 probability</b>").arg(resultClassName(resultClass));
    }
    m_gallery->imageModel()->setDescription(index, text);
    m_gallery->imageModel()->setState(index, state);
    m_gallery->imageModel()->setResult(index, QVariant::fromValue(result));
    updateFilter();
}

qint64 CAnalyzeDlg::remainingMilliseconds(qint64 elapsedMs, int processed, int total)
{
    const float elapsed = static_cast<float>(elapsedMs);
    const float remaining =
        elapsed * (static_cast<float>(total) / static_cast<float>(qMax(processed, 1))) - elapsed;
    return static_cast<qint64>(remaining);
}

void CAnalyzeDlg::updateFilter()
{
    const int processed = processedCount();
    const int total = m_files.size();
    m_filter->setItemText(FilterAll, tr("All (%1)").arg(total));
    m_filter->setItemText(FilterVeryHigh, tr("Very high probability (%1)").arg(m_counts[CountVeryHigh]));
    m_filter->setItemText(FilterHigh, tr("High probability (%1)").arg(m_counts[CountHigh]));
    m_filter->setItemText(FilterMedium, tr("Medium probability (%1)").arg(m_counts[CountMedium]));
    m_filter->setItemText(FilterLow, tr("Low probability (%1)").arg(m_counts[CountLow]));
    m_filter->setItemText(FilterNotFound, tr("Fingerprint not found (%1)").arg(m_counts[CountNotFound]));
    m_filter->setItemText(FilterNotProcessed, tr("Not processed (%1)").arg(total - processed));
    m_filter->setItemText(FilterNotCompared, tr("Not compared (%1)").arg(m_counts[CountNotCompared]));
    // The filter and the report button follow the new counts.
    filter(m_filter->currentIndex());

    const qint64 remaining = remainingMilliseconds(m_timer.isValid() ? m_timer.elapsed() : 0, processed, total);
    const double percent = total > 0 ? processed * 100.0 / total : 0.0;
    m_progressLabel->setText(tr("Processed %1 of %2 (%3 %) (remaining time: %4)")
                                 .arg(processed)
                                 .arg(total)
                                 .arg(percent, 0, 'f', 2)
                                 .arg(remainingTimeText(remaining)));
}

void CAnalyzeDlg::filter(int index)
{
    m_gallery->setFilterMask(m_filter->itemData(index).toInt());
    m_saveReport->setTitle(tr("Generate Report"));
    switch (index)
    {
    case FilterAll:
        m_saveReport->setDescription(tr("All %n processed photo(s) selected for report", nullptr, processedCount()));
        break;
    case FilterVeryHigh:
    case FilterHigh:
    case FilterMedium:
    case FilterLow:
    case FilterNotFound:
    case FilterNotCompared:
        m_saveReport->setDescription(tr("%n photo(s) selected for report", nullptr, classCount(index)));
        break;
    case FilterNotProcessed:
        m_saveReport->setDescription(tr("No processed photos selected for report"));
        break;
    default:
        QX_ERROR << "unknown filter";
        break;
    }
}

void CAnalyzeDlg::onCancelClicked()
{
    // The run may end while the question is open; cancelling it then means nothing.
    if (qcontrols::CMessageBoxFactory::question(this, tr("Cancel"),
                                                tr("Do you really want to cancel the current analyze?")) &&
        !m_finished)
        m_analyzer->cancel();
}

void CAnalyzeDlg::finish()
{
    m_finished = true;
    CMainWindow* window = CMainWindow::of(this);
    if (window && window->isClosing())
        return;
    m_progressLabel->hide();
    const double elapsed = m_timer.elapsed() / 1000.0;
    const int processed = processedCount();
    const int found = m_counts[CountVeryHigh] + m_counts[CountHigh] + m_counts[CountMedium] + m_counts[CountLow];
    // A cancel that came after the last photo was taken stopped nothing: the run is finished.
    m_cancelled = m_analyzer->isCancelled() && m_analyzer->analyzedCount() < m_files.size();
    // Nothing finished (cancelled before the first photo): no average to give.
    const QString average = processed > 0
                                ? tr("Average time per image: %1&nbsp;s").arg(elapsed / processed, 0, 'f', 2)
                                : tr("Average time per image: none finished");
    m_summary = tr("Photos analyzed: %1/%2").arg(m_analyzer->analyzedCount()).arg(m_files.size()) +
                QStringLiteral("<br>") + tr("Fingerprints found: %1").arg(found) + QStringLiteral("<br>") +
                tr("Fingerprints not found: %1").arg(m_counts[CountNotFound]) + QStringLiteral("<br>") +
                tr("Not compared: %1").arg(m_counts[CountNotCompared]) + QStringLiteral("<br>") +
                tr("Time elapsed: %1&nbsp;s").arg(elapsed, 0, 'f', 2) + QStringLiteral("<br>") +
                average;
    m_titleLabel->setText(m_cancelled ? tr("Analysis cancelled") : tr("Analysis finished"));
    // On the page the summary reads as one line beside the filter, wrapping only between its parts.
    QStringList parts = m_summary.split(QStringLiteral("<br>"));
    for (QString& part : parts)
        part.replace(QLatin1Char(' '), QStringLiteral("&nbsp;"));
    m_summaryLabel->setText(parts.join(QStringLiteral(" &nbsp;&middot;&nbsp; ")));
    m_summaryLabel->show();

    m_cancel->hide();
    m_home->show();
    m_saveReport->show();
    filter(m_filter->currentIndex());

    if (m_reportPath.isEmpty())
    {
        if (m_cancelled)
        {
            qcontrols::CMessageBoxFactory::information(this, tr("Analysis cancelled"), m_summary);
        }
        else
            qcontrols::CMessageBoxFactory::information(this, tr("Analysis finished"), m_summary);
    }
    else
        generateReport(m_reportPath, m_files);
}

bool CAnalyzeDlg::selectionIsEmpty(int index) const
{
    if (index == FilterAll)
        return m_files.isEmpty();
    return classCount(index) <= 0;
}

void CAnalyzeDlg::onSaveReport()
{
    const int index = m_filter->currentIndex();
    if (selectionIsEmpty(index))
    {
        qcontrols::CMessageBoxFactory::error(this, tr("Error"), tr("No photos in selection"));
        return;
    }
    const QString path = qcontrols::CFileChooser::getSaveFileName(
        this, tr("Choose destination for report"), CSettings::lastReport().absolutePath(),
        QStringLiteral("(*.pdf);;") + tr("All Files") + QStringLiteral(" (*)"));
    if (path.isEmpty())
        return;
    CSettings::setLastReport(QFileInfo(path));

    // The rows the gallery shows, in its order, without photos never started.
    QFileInfoList photos;
    const CGalleryFilterModel* shown = m_gallery->filterModel();
    for (int row = 0; row < shown->rowCount(); ++row)
    {
        const QModelIndex shownRow = shown->index(row, 0);
        if (CGalleryFilterModel::stateValue(shownRow.data(CImageModel::ItemStateRole)) == CImageModel::Waiting)
            continue;
        const int source = shown->mapToSource(shownRow).row();
        if (source >= 0 && source < m_files.size())
            photos.append(m_files.at(source));
    }
    generateReport(path, photos);
}

void CAnalyzeDlg::generateReport(const QString& path, const QFileInfoList& photos)
{
    SReportInput input;
    input.photos = photos;
    input.filterType = m_filter->currentIndex();
    input.fingerprintPath = CSettings::lastRecognizer().absoluteFilePath();
    if (m_fingerprint)
        input.fingerprintProperties = m_fingerprint->properties();
    input.photosFolder = CSettings::lastAnalyzePath().absolutePath();
    input.reportPath = path;
    input.results = m_analyzer->results();
    input.caseNumber = CSettings::reportCaseNumber();
    input.examiner = CSettings::reportExaminer();
    input.notes = CSettings::reportNotes();

    auto task = qutils::makeTask<CGeneratorTask>(input);
    const auto dialog = qdialogs::CProgressWidget::createDialog(this, tr("Creating PDF report..."), tr("Processing"), task);
    dialog->exec();
    dialog->hide();

    QString error;
    std::exception_ptr thrown;
    const qdialogs::CProgressWidget* progress = qdialogs::CProgressWidget::fromDialog(dialog.get());
    if (!progress || !progress->runner() || !progress->runner()->isFinished(thrown))
        error = tr("The report cannot be created!");
    else if (thrown)
    {
        try
        {
            std::rethrow_exception(thrown);
        }
        catch (const qutils::CException& e)
        {
            error = e.message();
        }
        catch (const std::exception& e)
        {
            error = QString::fromLocal8Bit(e.what());
        }
    }
    if (!error.isEmpty())
    {
        QX_WARNING << "Report " << path << " not created: " << error;
        qcontrols::CMessageBoxFactory::error(this, tr("Error"), error);
        return;
    }
    const double scale = CMainWindow::currentScale();
    const QString folder = QFileInfo(path).absolutePath();
    const QString text =
        QStringLiteral("<html></head><body style=\"line-height: %1px\">").arg(qRound(40 * scale)) +
        tr("Report file was successfully created.<br />") +
        tr("Click to %1view folder%2 with the report.")
            .arg(QStringLiteral("<a href=\"%1\" style=\"color: #ddd;\">")
                     .arg(QUrl::fromLocalFile(folder).toString(QUrl::FullyEncoded).toHtmlEscaped()),
                 QStringLiteral("</a>")) +
        QStringLiteral("</body></html>");
    qcontrols::CMessageBoxFactory::information(this, tr("Finished"), text);
}
