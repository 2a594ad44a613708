#pragma once

#include "chooseimagepathdlg.h"

#include <QFileInfoList>

class CFingerprintInfo;
class CGalleryWidget;
class QCheckBox;
class QLineEdit;
class QPlainTextEdit;

// The first page of the Analyze workflow: the folder of questioned photos,
// then the fingerprint to match them against.
class CChoosePathAnalyze : public CChooseImagePathDlg
{
    Q_OBJECT

public:
    explicit CChoosePathAnalyze(QWidget* parent = nullptr);

    CGalleryWidget* gallery() const { return m_gallery; }

public slots:
    void onNext();

protected:
    void storeDirectory(const QDir& dir) override;
    QDir initialDirectory() const override;
    QString chooseDirCaption() const override;

private:
    CGalleryWidget* m_gallery = nullptr;
};

// The second page: the chosen fingerprint's properties and the analysis
// options; Next starts the analysis.
class CFingerprintInfoScr : public QWidget
{
    Q_OBJECT

public:
    explicit CFingerprintInfoScr(const QFileInfoList& files, QWidget* parent = nullptr);

    CFingerprintInfo* fingerprintInfo() const { return m_info; }

public slots:
    void onNext();
    void onBack();
    void onChangeFingerprint();

private:
    QFileInfoList m_files;
    CFingerprintInfo* m_info = nullptr;
    QCheckBox* m_skipDifferentCamera = nullptr;
    QCheckBox* m_autoReport = nullptr;
    QLineEdit* m_caseNumber = nullptr;
    QLineEdit* m_examiner = nullptr;
    QPlainTextEdit* m_notes = nullptr;
    // Remembers the case details for the next report.
    void storeCaseDetails();
};
