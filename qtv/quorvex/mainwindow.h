#pragma once

#include <QMainWindow>

class QPushButton;
class QStackedWidget;
class CIntroPageDlg;

// The program's one top-level window: shows one page at a time, owns the
// full-screen toggle and guards closing while photos are being processed.
class CMainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit CMainWindow(double scale, QWidget* parent = nullptr);

    double scale() const { return m_scale; }
    // The program's main window (null before it exists) and its interface
    // scale (1 without one), for pages and widgets built before they are placed.
    static CMainWindow* instance();
    static double currentScale();
    // The main window that holds widget, or null.
    static CMainWindow* of(const QWidget* widget);
    // Shows a page (the window takes it); the previous page stays below it.
    void pushPage(QWidget* page);
    // Removes the current page and shows the one below; the intro page stays.
    void popPage();
    // Back to the intro page, dropping every page above it.
    void showIntroPage();
    QWidget* currentPage() const;
    CIntroPageDlg* introPage() const { return m_intro; }
    bool isClosing() const { return m_closing; }

public slots:
    void onBtnFullScreen();
    void onShowHelp();
    void onShowLearn();
    void onShowAnalyze();
    // A page with the properties of a fingerprint file and a way home.
    void showFingerprintProperties(const QString& path);

protected:
    void closeEvent(QCloseEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void updateFullScreenIcon();

    double m_scale;
    bool m_closing = false;
    QStackedWidget* m_pages = nullptr;
    CIntroPageDlg* m_intro = nullptr;
    QPushButton* m_fullScreenButton = nullptr;
};
