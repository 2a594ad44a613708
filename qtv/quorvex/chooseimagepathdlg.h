#pragma once

#include "photolisting.h"

#include <QDir>
#include <QFileInfoList>
#include <QWidget>

class CGalleryWidget;
class QCheckBox;
class QLabel;
class QLineEdit;
class QVBoxLayout;

// The page on which the user picks a folder of photos: lists the folder (and
// on request its subfolders) on a worker thread behind a "Please wait" dialog,
// shows the running count and hands the list to a gallery.
class CChooseImagePathDlg : public QWidget
{
    Q_OBJECT

public:
    explicit CChooseImagePathDlg(QWidget* parent = nullptr);

    // The gallery that receives the listed photos; listing does nothing until it is set.
    void setGallery(CGalleryWidget* gallery);
    // The one entry into listing.
    void listFolder(const QDir& dir, bool updateEdit);
    const QFileInfoList& files() const { return m_files; }
    // Files with a photo's name in the folder that cannot be analysed, with the reason.
    const QList<SRefusedFile>& refusedFiles() const { return m_refused; }

signals:
    void homeRequested();

public slots:
    void onChooseDir();
    void onEditPathChanged();
    void onIncludeSubdirsChanged();
    void onUpdateLabel(int pos);

protected:
    // The page's vertical layout (the controls row is its first item), for the
    // derived pages' own widgets.
    QVBoxLayout* pageLayout() const { return m_layout; }
    // The listed photos, for the derived pages' own limits.
    QFileInfoList& fileList() { return m_files; }

    // Remembers the folder being listed (the derived pages store it in the settings).
    virtual void storeDirectory(const QDir& dir);
    // Where the folder chooser opens.
    virtual QDir initialDirectory() const;
    virtual QString chooseDirCaption() const;

private:
    QVBoxLayout* m_layout = nullptr;
    QLineEdit* m_editPath = nullptr;
    QCheckBox* m_subdirs = nullptr;
    QLabel* m_count = nullptr;
    CGalleryWidget* m_gallery = nullptr;
    QFileInfoList m_files;
    QList<SRefusedFile> m_refused;
};
