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

signals:
    void homeRequested();

public slots:
    void onHelpLoaded(bool ok);
    void navigateHome();

private:
    QTextBrowser* m_view = nullptr;
    QUrl m_index;
};
