#pragma once

#include "fingerprint.h"

#include "qcontrols/modaldialogtemplate.h"

#include <QMap>
#include <QWidget>

#include <memory>

class QLabel;
class QPushButton;

// The properties of a fingerprint file: ten rows (quality, photos, size,
// camera, lens, date, path, description) and the description editor, which
// writes the new text back into the file. Used as a panel on the learn result
// page and the analysis set-up, and as the content of a modal frame.
class CFingerprintInfo : public QWidget, public qcontrols::CModalDialogContent
{
    Q_OBJECT

public:
    explicit CFingerprintInfo(QWidget* parent = nullptr);

    // Loads the file and shows it. The first file fills the rows with
    // "unknown" for missing values and the NMSE to three decimals; a later
    // file updates them plainly. False (and the message
    // "Fingerprint cannot be loaded!") when the file cannot be loaded.
    bool setFingerprintFile(const QString& path);

    std::shared_ptr<CFingerprint> fingerprint() const { return m_fingerprint; }
    // The value shown in a row (CFingerprint::Path for the path row).
    QString valueText(CFingerprint::EInfoType id) const;

    // The rows, top to bottom.
    static QList<CFingerprint::EInfoType> rowOrder();

public slots:
    void onEditDescription();

private:
    QString firstFillText(CFingerprint::EInfoType id) const;
    QString reloadText(CFingerprint::EInfoType id) const;

    std::shared_ptr<CFingerprint> m_fingerprint;
    QString m_path;
    QMap<CFingerprint::EInfoType, QLabel*> m_values;
    QPushButton* m_editButton = nullptr;
    bool m_filled = false;
};
