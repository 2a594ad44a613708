#include "fingerprintinfo.h"

#include "mainwindow.h"
#include "settings.h"

#include "qcontrols/lineinputdialog.h"
#include "qcontrols/messageboxfactory.h"

#include <QDateTime>
#include <QDir>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QVBoxLayout>

using EInfoType = CFingerprint::EInfoType;

CFingerprintInfo::CFingerprintInfo(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("fingerprintInfo"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);

    auto* header = new QFrame(this);
    header->setObjectName(QStringLiteral("fingerprintHeader"));
    auto* headerLayout = new QHBoxLayout(header);
    headerLayout->setContentsMargins(0, 0, 0, 8);
    auto* title = new QLabel(tr("Fingerprint properties"), header);
    title->setObjectName(QStringLiteral("lbTitle"));
    headerLayout->addWidget(title);
    layout->addWidget(header);

    for (EInfoType id : rowOrder())
    {
        auto* row = new QHBoxLayout;
        row->setSpacing(0);
        const QString name = id == CFingerprint::Path ? tr("Fingerprint path:")
                                                      : CFingerprint::displayText(id) + QStringLiteral(":  ");
        auto* nameLabel = new QLabel(name, this);
        nameLabel->setObjectName(QStringLiteral("fingerprintDescription"));
        nameLabel->setAlignment(Qt::AlignLeft | Qt::AlignTop);
        auto* value = new QLabel(this);
        value->setObjectName(QStringLiteral("fingerprintData"));
        value->setProperty("infoType", static_cast<int>(id));
        value->setWordWrap(true);
        value->setAlignment(Qt::AlignLeft | Qt::AlignTop);
        value->setTextInteractionFlags(Qt::TextSelectableByMouse);
        value->setTextFormat(Qt::PlainText);
        row->addWidget(nameLabel, 0, Qt::AlignTop);
        // The gap is the layout's: padding on the name in the style sheet would make Qt frame
        // the label on every side and set its text lower than the value's.
        row->addSpacing(qRound(4 * CMainWindow::currentScale()));
        row->addWidget(value, 1, Qt::AlignTop);
        m_values.insert(id, value);
        if (id == CFingerprint::Description)
        {
            m_editButton = new QPushButton(QIcon(QStringLiteral(":/Quorvex/description.png")), QString(), this);
            m_editButton->setObjectName(QStringLiteral("editFingerprint"));
            m_editButton->setToolTip(tr("Edit fingerprint description"));
            m_editButton->setEnabled(false);
            row->addWidget(m_editButton, 0, Qt::AlignTop);
            connect(m_editButton, &QPushButton::clicked, this, &CFingerprintInfo::onEditDescription);
        }
        layout->addLayout(row);
    }
    layout->addStretch();
}

QList<EInfoType> CFingerprintInfo::rowOrder()
{
    return {CFingerprint::NMSE,         CFingerprint::TrainingImagesCount,
            CFingerprint::Width,        CFingerprint::Height,
            CFingerprint::Manufacturer, CFingerprint::Model,
            CFingerprint::LensInfo,     CFingerprint::CreationDate,
            CFingerprint::Path,         CFingerprint::Description};
}

bool CFingerprintInfo::setFingerprintFile(const QString& path)
{
    CFingerprint::EStatus status = qutils::CQuorvexAPI::Invalid;
    auto fingerprint = CFingerprint::load(QFileInfo(path), &status);
    if (!fingerprint)
    {
        qcontrols::CMessageBoxFactory::error(this, tr("Error"),
                                             tr("Fingerprint cannot be loaded!") + QLatin1Char('\n') +
                                                 CFingerprint::loadErrorText(QFileInfo(path), status));
        return false;
    }
    m_fingerprint = fingerprint;
    m_path = path;
    CSettings::setLastRecognizer(QFileInfo(path));

    const bool reload = m_filled;
    for (auto it = m_values.cbegin(); it != m_values.cend(); ++it)
        it.value()->setText(reload ? reloadText(it.key()) : firstFillText(it.key()));
    m_filled = true;
    m_editButton->setEnabled(true);
    return true;
}

QString CFingerprintInfo::reloadText(EInfoType id) const
{
    if (id == CFingerprint::Path)
        return QDir::toNativeSeparators(m_path);
    const QVariant value = m_fingerprint->property(id);
    if (id == CFingerprint::CreationDate)
        return QLocale::system().toString(value.toDateTime(), QLocale::ShortFormat);
    return value.toString();
}

QString CFingerprintInfo::firstFillText(EInfoType id) const
{
    const QString plain = reloadText(id);
    if (id == CFingerprint::Description)
        return plain;
    if (plain.isEmpty())
        return tr("unknown");
    if (id == CFingerprint::NMSE)
        return QString::number(m_fingerprint->property(id).toDouble(), 'f', 3);
    return plain;
}

QString CFingerprintInfo::valueText(EInfoType id) const
{
    const QLabel* label = m_values.value(id);
    return label ? label->text() : QString();
}

void CFingerprintInfo::onEditDescription()
{
    if (!m_fingerprint)
        return;
    bool ok = false;
    const QString text = qcontrols::CLineInputDialog::getText(
        this, tr("Fingerprint description"), tr("Please enter the fingerprint description:"),
        m_fingerprint->property(CFingerprint::Description).toString(), &ok);
    if (!ok)
        return;
    m_fingerprint->setProperty(CFingerprint::Description, text);
    // Written to the fingerprint the user last opened, which is the one shown.
    if (!m_fingerprint->save(CSettings::lastRecognizer(), m_fingerprint->fingerprint()))
        qcontrols::CMessageBoxFactory::warning(this, tr("Error"),
                                               tr("The description cannot be saved to %1.")
                                                   .arg(QDir::toNativeSeparators(CSettings::lastRecognizer().absoluteFilePath())));
    m_values.value(CFingerprint::Description)->setText(text);
}
