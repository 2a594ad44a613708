#include "chooseimagepathdlg.h"

#include "gallerywidget.h"
#include "photolisting.h"
#include "settings.h"

#include "qcontrols/folderchooser.h"
#include "qcontrols/modaldialogtemplate.h"
#include "qdialogs/progressdlg.h"
#include "qutils/debugutils.h"
#include "qutils/tasks.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QPointer>
#include <QVBoxLayout>

namespace
{

QString countText(int count)
{
    return QCoreApplication::translate("CChooseImagePathDlg", "Photos found: %1").arg(count);
}

// The count, and the files that cannot be analysed: named with the reason in
// the tooltip, so none disappears without a word.
QString refusedText(const QList<SRefusedFile>& refused)
{
    QStringList lines;
    for (const SRefusedFile& file : refused)
        lines << QCoreApplication::translate("CChooseImagePathDlg", "%1: %2").arg(file.path, file.reason);
    return lines.join(QLatin1Char('\n'));
}

QString countText(int count, int refused)
{
    return refused == 0 ? countText(count)
                        : QCoreApplication::translate("CChooseImagePathDlg",
                                                      "Photos found: %1 (%2 cannot be analyzed)")
                              .arg(count)
                              .arg(refused);
}

// Widgets are only ever touched on their own thread: the worker asks by name.
void invokeSetText(QObject* target, const QString& text)
{
    if (!QMetaObject::invokeMethod(target, "setText", Qt::QueuedConnection, Q_ARG(QString, text)))
        QX_DEBUG << "Cannot invoke setText";
}

} // namespace

CChooseImagePathDlg::CChooseImagePathDlg(QWidget* parent) : QWidget(parent)
{
    static const int registered = qRegisterMetaType<QFileInfoList>("QFileInfoList");
    Q_UNUSED(registered)

    m_editPath = new QLineEdit(this);
    m_editPath->setObjectName(QStringLiteral("editPath"));
    auto* choose = new QPushButton(tr("Select folder"), this);
    choose->setObjectName(QStringLiteral("btnChooseDir"));
    m_subdirs = new QCheckBox(tr("Include subfolders"), this);
    m_subdirs->setObjectName(QStringLiteral("checkSubdirs"));
    m_subdirs->setChecked(CSettings::analyzeSubdirs());
    m_count = new QLabel(countText(0), this);
    m_count->setObjectName(QStringLiteral("imagesCount"));
    auto* home = new QPushButton(QIcon(QStringLiteral(":/Quorvex/home.png")), QString(), this);
    home->setObjectName(QStringLiteral("btnNavigateHome"));
    home->setToolTip(tr("Home"));

    auto* row = new QHBoxLayout;
    row->setSpacing(6);
    row->addWidget(m_editPath, 1);
    row->addWidget(choose);
    row->addWidget(m_subdirs);
    row->addSpacing(12);
    row->addWidget(m_count);
    row->addStretch();
    row->addWidget(home);
    m_layout = new QVBoxLayout(this);
    m_layout->addLayout(row);

    connect(choose, &QPushButton::clicked, this, &CChooseImagePathDlg::onChooseDir);
    connect(home, &QPushButton::clicked, this, &CChooseImagePathDlg::homeRequested);
    connect(m_editPath, &QLineEdit::textEdited, this, &CChooseImagePathDlg::onEditPathChanged);
    connect(m_subdirs, &QCheckBox::toggled, this, &CChooseImagePathDlg::onIncludeSubdirsChanged);
}

void CChooseImagePathDlg::setGallery(CGalleryWidget* gallery)
{
    m_gallery = gallery;
}

void CChooseImagePathDlg::storeDirectory(const QDir&) {}

QDir CChooseImagePathDlg::initialDirectory() const
{
    return QDir::home();
}

QString CChooseImagePathDlg::chooseDirCaption() const
{
    return tr("Choose a folder with photos");
}

void CChooseImagePathDlg::onChooseDir()
{
    const QString path =
        qcontrols::CFolderChooser::getDirectory(this, chooseDirCaption(), initialDirectory().absolutePath());
    if (!path.isEmpty() && QDir(path).exists())
        listFolder(QDir(path), true);
}

void CChooseImagePathDlg::onEditPathChanged()
{
    listFolder(QDir(m_editPath->text()), false);
}

void CChooseImagePathDlg::onIncludeSubdirsChanged()
{
    CSettings::setAnalyzeSubdirs(m_subdirs->isChecked());
    onEditPathChanged();
}

void CChooseImagePathDlg::onUpdateLabel(int pos)
{
    m_count->setText(countText(pos));
}

void CChooseImagePathDlg::listFolder(const QDir& dir, bool updateEdit)
{
    if (!dir.exists() || !m_gallery)
    {
        m_count->setText(countText(0));
        return;
    }
    const bool recursive = m_subdirs->isChecked(); // read once: later toggles do not change this listing
    QPointer<CChooseImagePathDlg> self(this);
    QLineEdit* edit = m_editPath;
    QLabel* count = m_count;
    CGalleryWidget* gallery = m_gallery;
    QFileInfoList* files = &m_files;
    QList<SRefusedFile>* refused = &m_refused;

    // The listing itself: cancellable between entries, reporting the running count.
    auto listing = qutils::makeTask<qutils::CFunctionTask>(
        [dir, recursive, files, refused](qutils::CTask* task)
        {
            *files = listPhotos(
                dir, recursive, [task] { return task->isCancelled(); },
                [task](int n) { task->setProgressPos(n); }, refused);
        });
    connect(listing.get(), &qutils::CTask::progressPos, this, [this](qint64 pos) { onUpdateLabel(static_cast<int>(pos)); });

    // The finishing job, on the dialog's worker thread.
    auto job = qutils::makeTask<qutils::CFunctionTask>([=](qutils::CTask* task) {
        files->clear();
        refused->clear();
        if (self)
            self->storeDirectory(dir);
        if (updateEdit)
            invokeSetText(edit, QDir::toNativeSeparators(dir.absolutePath()));
        task->runSubTaskNoProgress(listing);
        invokeSetText(count, countText(files->size(), refused->size()));
        for (const SRefusedFile& file : *refused)
            QX_WARNING << "Photo cannot be analyzed: " << file.path << ": " << file.reason;
        const QString tip = refusedText(*refused);
        QMetaObject::invokeMethod(
            count, [count, tip] { count->setToolTip(tip); }, Qt::QueuedConnection);
        if (!QMetaObject::invokeMethod(gallery, "setFiles", Qt::QueuedConnection, Q_ARG(QFileInfoList, *files)))
            QX_DEBUG << "Cannot invoke setFiles";
    });
    const auto dialog = qdialogs::CProgressWidget::createDialog(
        this, tr("Please wait"), tr("Listing folder %1").arg(QDir::toNativeSeparators(dir.absolutePath())), job);
    dialog->exec();
    dialog->hide();
}
