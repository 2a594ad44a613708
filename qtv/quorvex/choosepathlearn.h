#pragma once

#include "chooseimagepathdlg.h"

class CGalleryWidget;

// The first page of the Learn workflow: a folder of reference photos from one
// camera, checked against the minimum and maximum count, and the fingerprint
// file to create; Next hands both to the learn screen.
class CChoosePathLearn : public CChooseImagePathDlg
{
    Q_OBJECT

public:
    static constexpr int minimumImages = 3;
    static constexpr int maximumImages = 200;

    explicit CChoosePathLearn(QWidget* parent = nullptr);

    CGalleryWidget* gallery() const { return m_gallery; }
    // The title and hint as rich text, sized for the interface scale.
    static QString titleText(double scale);

public slots:
    void onNext();

protected:
    void storeDirectory(const QDir& dir) override;
    QDir initialDirectory() const override;
    QString chooseDirCaption() const override;

private:
    CGalleryWidget* m_gallery = nullptr;
};
