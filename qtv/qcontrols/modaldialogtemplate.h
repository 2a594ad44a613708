#pragma once

#include <QDialog>
#include <QString>

class QCloseEvent;
class QHBoxLayout;
class QLabel;
class QPushButton;
class QShowEvent;
class QVBoxLayout;
class QWidget;

namespace qcontrols
{

// Implemented by content widgets that take part in the frame's life: the frame
// tells them when it is about to run and asks them before it closes.
class CModalDialogContent
{
public:
    virtual ~CModalDialogContent() = default;

    // Called once, when the frame is first shown (open(), show() or exec()).
    virtual void onDialogStart() {}
    // The user asked the frame to close or cancel (Escape, the window's close
    // button, the Cancel button). False keeps the frame up.
    virtual bool onCloseRequest() { return true; }
};

// The program's modal frame: shown over a parent widget, a title row, one
// content widget and an optional row of buttons, each closing the frame with
// its own result code.
class CModalDialogTemplate : public QDialog
{
    Q_OBJECT

public:
    enum EOption
    {
        NoOptions = 0,
        // No close button in the window's title bar; only the frame's own
        // buttons (or the content) end the dialog.
        NoWindowCloseButton = 0x1,
        // The frame is not resizable by the user.
        FixedSize = 0x2,
        // A "Cancel" button ("cancelButton") whose click is a close request to
        // the content, like Escape; the content may refuse it.
        CancelButton = 0x800,
    };

    // The frame takes ownership of content. An empty title hides the title row.
    CModalDialogTemplate(QWidget* content, const QString& title, QWidget* parent = nullptr,
                         int options = NoOptions);
    ~CModalDialogTemplate() override;

    QWidget* contentWidget() const { return m_content; }
    int options() const { return m_options; }
    QString title() const;
    void setTitle(const QString& title);

    // Adds a button to the row; a click closes the frame with resultCode
    // without asking the content.
    QPushButton* addButton(const QString& text, int resultCode, const QString& objectName = QString());
    QPushButton* button(const QString& objectName) const;

    // Sets the result and closes through the "close" slot, which the content
    // cannot refuse. Safe to call while the frame is not shown.
    void closeWithResult(int resultCode);

    // Asks the content whether the frame may close; true when it has no say.
    bool requestClose();

public slots:
    void reject() override;
    void done(int resultCode) override;

protected:
    void showEvent(QShowEvent* event) override;

private:
    void placeOverParent();

    QWidget* m_content = nullptr;
    int m_options = NoOptions;
    QLabel* m_titleLabel = nullptr;
    QWidget* m_buttonRow = nullptr;
    QHBoxLayout* m_buttonLayout = nullptr;
    bool m_started = false;
    // Set by closeWithResult() until the frame has closed: the result to keep
    // when Qt's close path calls reject().
    bool m_hasPendingResult = false;
    int m_pendingResult = 0;
};

} // namespace qcontrols
