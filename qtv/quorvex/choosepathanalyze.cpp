#include "choosepathanalyze.h"

#include "analyzedlg.h"
#include "fingerprint.h"
#include "fingerprintinfo.h"
#include "gallerywidget.h"
#include "mainwindow.h"
#include "settings.h"

#include "qcontrols/filechooser.h"
#include "qcontrols/messageboxfactory.h"
#include "qcontrols/navigationbutton.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

namespace
{

void showPage(QWidget* from, QWidget* page)
{
    if (CMainWindow* window = CMainWindow::of(from))
        window->pushPage(page);
    else
        page->show();
}

} // namespace

CChoosePathAnalyze::CChoosePathAnalyze(QWidget* parent) : CChooseImagePathDlg(parent)
{
    setObjectName(QStringLiteral("choosePathAnalyze"));
    auto* title = new QLabel(tr("Choose folder with photos to analyze"), this);
    title->setObjectName(QStringLiteral("titleLabel"));
    pageLayout()->insertWidget(0, title);

    m_gallery = new CGalleryWidget(this);
    pageLayout()->addWidget(m_gallery, 1);
    setGallery(m_gallery);

    auto* next = new qcontrols::CNavigationButton(tr("Next"), tr("Select fingerprint file for use in analysis"),
                                                  QIcon(QStringLiteral(":/Quorvex/next.png")),
                                                  QStringLiteral("btnNavigateNext"), this);
    auto* bottom = new QHBoxLayout;
    bottom->addStretch();
    bottom->addWidget(next);
    pageLayout()->addLayout(bottom);
    connect(next, &QPushButton::clicked, this, &CChoosePathAnalyze::onNext);

    listFolder(CSettings::lastAnalyzePath(), true);
}

void CChoosePathAnalyze::storeDirectory(const QDir& dir)
{
    CSettings::setLastAnalyzePath(dir);
}

QDir CChoosePathAnalyze::initialDirectory() const
{
    return CSettings::lastAnalyzePath();
}

QString CChoosePathAnalyze::chooseDirCaption() const
{
    return tr("Choose folder with photos to analyze");
}

void CChoosePathAnalyze::onNext()
{
    // A fingerprint learned in this run is offered without asking.
    QString path = CSettings::currentFingerprint().filePath();
    if (path.isEmpty())
        path = qcontrols::CFileChooser::getOpenFileName(this, tr("Select fingerprint file"),
                                                        CSettings::lastRecognizer().absolutePath(),
                                                        CFingerprint::fileFilter());
    if (path.isEmpty())
        return;
    CSettings::setLastRecognizer(QFileInfo(path));
    qutils::CQuorvexAPI::EStatus status = qutils::CQuorvexAPI::Invalid;
    if (!CFingerprint::load(QFileInfo(path), &status) || status != qutils::CQuorvexAPI::Success)
    {
        qcontrols::CMessageBoxFactory::error(this, tr("Error"),
                                             tr("Fingerprint file cannot be loaded.") + QLatin1Char('\n') +
                                                 CFingerprint::loadErrorText(QFileInfo(path), status));
        return;
    }
    if (files().isEmpty())
    {
        qcontrols::CMessageBoxFactory::error(this, tr("Error"), tr("Folder does not contain any images."));
        return;
    }
    showPage(this, new CFingerprintInfoScr(files()));
}

CFingerprintInfoScr::CFingerprintInfoScr(const QFileInfoList& files, QWidget* parent)
    : QWidget(parent), m_files(files)
{
    setObjectName(QStringLiteral("fingerprintInfoScr"));
    auto* layout = new QVBoxLayout(this);

    auto* top = new QHBoxLayout;
    auto* back = new qcontrols::CNavigationButton(tr("Back"), QString(), QIcon(QStringLiteral(":/Quorvex/back.png")),
                                                  QStringLiteral("btnNavigateBackLeft"), this);
    top->addWidget(back);
    top->addStretch();
    auto* change = new qcontrols::CNavigationButton(tr("Choose different fingerprint"), QString(),
                                                    QIcon(QStringLiteral(":/Quorvex/fingerprint.png")),
                                                    QStringLiteral("changePathBtn"), this);
    top->addWidget(change);
    layout->addLayout(top);

    auto* row = new QHBoxLayout;
    row->addSpacing(30);
    m_info = new CFingerprintInfo(this);
    row->addWidget(m_info, 1);
    row->addSpacing(30);

    auto* options = new QVBoxLayout;
    auto* header = new QLabel(tr("Analysis options"), this);
    header->setObjectName(QStringLiteral("fingerprintHeader"));
    options->addWidget(header);
    // Unchecked on every visit: the options are chosen per analysis.
    m_skipDifferentCamera = new QCheckBox(tr("Skip photos from different camera (EXIF)"), this);
    m_skipDifferentCamera->setObjectName(QStringLiteral("fingerprintSettings"));
    m_autoReport = new QCheckBox(tr("Automatically generate PDF report"), this);
    m_autoReport->setObjectName(QStringLiteral("fingerprintSettings"));
    options->addWidget(m_skipDifferentCamera);
    options->addWidget(m_autoReport);
    // Remembered: the photos of one case are often analysed in several runs.
    auto* caseHeader = new QLabel(tr("Report details (optional)"), this);
    caseHeader->setObjectName(QStringLiteral("fingerprintHeader"));
    options->addSpacing(12);
    options->addWidget(caseHeader);
    m_caseNumber = new QLineEdit(CSettings::reportCaseNumber(), this);
    m_caseNumber->setObjectName(QStringLiteral("reportCaseNumber"));
    m_caseNumber->setPlaceholderText(tr("Case number"));
    m_examiner = new QLineEdit(CSettings::reportExaminer(), this);
    m_examiner->setObjectName(QStringLiteral("reportExaminer"));
    m_examiner->setPlaceholderText(tr("Examiner"));
    m_notes = new QPlainTextEdit(CSettings::reportNotes(), this);
    m_notes->setObjectName(QStringLiteral("reportNotes"));
    m_notes->setPlaceholderText(tr("Notes"));
    m_notes->setMaximumHeight(90);
    options->addWidget(m_caseNumber);
    options->addWidget(m_examiner);
    options->addWidget(m_notes);
    options->addStretch();
    row->addLayout(options);
    row->addSpacing(30);
    layout->addLayout(row, 1);

    auto* bottom = new QHBoxLayout;
    bottom->addStretch();
    auto* next = new qcontrols::CNavigationButton(tr("Next"), QString(), QIcon(QStringLiteral(":/Quorvex/next.png")),
                                                  QStringLiteral("btnNavigateNext"), this);
    bottom->addWidget(next);
    layout->addLayout(bottom);

    connect(next, &QPushButton::clicked, this, &CFingerprintInfoScr::onNext);
    connect(back, &QPushButton::clicked, this, &CFingerprintInfoScr::onBack);
    connect(change, &QPushButton::clicked, this, &CFingerprintInfoScr::onChangeFingerprint);

    m_info->setFingerprintFile(CSettings::lastRecognizer().filePath());
}

void CFingerprintInfoScr::storeCaseDetails()
{
    CSettings::setReportCaseNumber(m_caseNumber->text());
    CSettings::setReportExaminer(m_examiner->text());
    CSettings::setReportNotes(m_notes->toPlainText());
}

void CFingerprintInfoScr::onNext()
{
    storeCaseDetails();
    QString reportPath;
    if (m_autoReport->isChecked())
    {
        reportPath = qcontrols::CFileChooser::getSaveFileName(
            this, tr("Choose destination for report"), CSettings::lastReport().absolutePath(),
            QStringLiteral("(*.pdf);;") + tr("All Files") + QStringLiteral(" (*)"));
        if (reportPath.isEmpty())
            return;
        CSettings::setLastReport(QFileInfo(reportPath));
    }
    showPage(this, new CAnalyzeDlg(m_files, reportPath, m_skipDifferentCamera->isChecked()));
}

void CFingerprintInfoScr::onBack()
{
    storeCaseDetails();
    if (CMainWindow* window = CMainWindow::of(this))
        window->popPage();
}

void CFingerprintInfoScr::onChangeFingerprint()
{
    const QString path = qcontrols::CFileChooser::getOpenFileName(
        this, tr("Select fingerprint file"), CSettings::lastRecognizer().absolutePath(), CFingerprint::fileFilter());
    if (!path.isEmpty())
        m_info->setFingerprintFile(path);
}
