#include "choosepathlearn.h"

#include "fingerprint.h"
#include "gallerywidget.h"
#include "learnscr.h"
#include "mainwindow.h"
#include "settings.h"

#include "qcontrols/filechooser.h"
#include "qcontrols/messageboxfactory.h"
#include "qutils/debugutils.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

CChoosePathLearn::CChoosePathLearn(QWidget* parent) : CChooseImagePathDlg(parent)
{
    setObjectName(QStringLiteral("choosePathLearn"));
    auto* title = new QLabel(titleText(CMainWindow::currentScale()), this);
    title->setObjectName(QStringLiteral("learnTitle"));
    title->setWordWrap(true);
    title->setTextFormat(Qt::RichText);
    pageLayout()->insertWidget(0, title);

    m_gallery = new CGalleryWidget(this);
    pageLayout()->addWidget(m_gallery, 1);
    setGallery(m_gallery);

    auto* next = new QPushButton(QIcon(QStringLiteral(":/Quorvex/next.png")), tr("Next"), this);
    next->setObjectName(QStringLiteral("btnNavigateNext"));
    next->setToolTip(tr("In the next step the fingerprint file will be created"));
    auto* bottom = new QHBoxLayout;
    bottom->addStretch();
    bottom->addWidget(next);
    pageLayout()->addLayout(bottom);
    connect(next, &QPushButton::clicked, this, &CChoosePathLearn::onNext);

    listFolder(CSettings::lastTeachingPath(), true);
}

QString CChoosePathLearn::titleText(double scale)
{
    const QString hint =
        tr("For best results use 30+ photos, ideally walls or clouds. Make sure there are no visible shapes or "
           "objects.<br>A minimum of %1 photos is required.")
            .arg(minimumImages);
    return QStringLiteral("<html><head /><body>") +
           QStringLiteral("<div align=\"left\" style=\"font-size: %1px; padding-top: 0px; margin-bottom: 8px; "
                          "color:white; font-family: 'Segoe UI Light'\">")
               .arg(static_cast<int>(20 * scale)) +
           tr("Choose a folder with reference photos") + QStringLiteral("</div>") +
           QStringLiteral("<div align=\"left\" style=\"font-size: %1px; line-height: %2px; color: #6f6f6f; "
                          "margin-top: 0px; font-family: 'Segoe UI'\">")
               .arg(static_cast<int>(17 * scale))
               .arg(static_cast<int>(21 * scale)) +
           hint + QStringLiteral("</div></body></html>");
}

void CChoosePathLearn::storeDirectory(const QDir& dir)
{
    CSettings::setLastTeachingPath(dir);
}

QDir CChoosePathLearn::initialDirectory() const
{
    return CSettings::lastTeachingPath();
}

QString CChoosePathLearn::chooseDirCaption() const
{
    return tr("Choose a folder with reference photos");
}

void CChoosePathLearn::onNext()
{
    QFileInfoList& photos = fileList();
    if (photos.size() < minimumImages)
    {
        qcontrols::CMessageBoxFactory::warning(
            this, tr("Not enough images"),
            tr("A folder with at least %1 images from the camera is needed.").arg(minimumImages));
        return;
    }
    if (photos.size() > maximumImages)
    {
        if (!qcontrols::CMessageBoxFactory::question(
                this, tr("Too many images"),
                tr("There are too many items for learning.\nOnly first %1 images will be used.\n\nDo you want to "
                   "continue?")
                    .arg(maximumImages)))
            return;
        if (photos.size() <= maximumImages)
            QX_SELFCHECK(QStringLiteral("cutting a list that is not longer than the maximum"));
        photos = photos.mid(0, maximumImages);
    }
    // Refused before the destination is asked for: a photo counted twice
    // would weigh double in the fingerprint and in its photo count.
    const QString duplicate = CFingerprint::duplicatePhotoMessage(photos);
    if (!duplicate.isEmpty())
    {
        qcontrols::CMessageBoxFactory::warning(this, tr("Duplicate reference photos"), duplicate);
        return;
    }

    const QString destination = qcontrols::CFileChooser::getSaveFileName(
        this, tr("Select destination for fingerprint"), CSettings::lastRecognizer().absolutePath(),
        CFingerprint::fileFilter());
    if (destination.isEmpty())
        return;
    CSettings::setLastRecognizer(QFileInfo(destination));

    auto* screen = new CLearnScr(photos, QFileInfo(destination), this);
    if (CMainWindow* window = CMainWindow::of(this))
        window->pushPage(screen);
    else
        screen->show();
}
