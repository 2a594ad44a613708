#pragma once

#include <QUrl>
#include <QWidget>

class QTextBrowser;

// The help page: the local "Help/index.html" beside the program.
class CHelpDlg : public QWidget
{
    Q_OBJECT

public:
    explicit CHelpDlg(QWidget* parent = nullptr);
    // Where the pages are looked for ("Help" beside the program).
    static QString helpFolder();
    // Another folder for the pages (tests); empty restores the default.
    static void setHelpFolder(const QString& folder);

signals:
    void homeRequested();

public slots:
    void onHelpLoaded(bool ok);
    void navigateHome();

private:
    QTextBrowser* m_view = nullptr;
    QUrl m_index;
};
