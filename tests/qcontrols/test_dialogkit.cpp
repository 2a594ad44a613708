#include "qcontrols/dialogscript.h"
#include "qcontrols/folderchooser.h"
#include "qcontrols/lineinputdialog.h"
#include "qcontrols/messageboxfactory.h"
#include "qcontrols/modaldialogtemplate.h"
#include "qcontrols/navigationbutton.h"
#include "qcontrols/richtextlabel.h"

#include "logcapture.h"
#include "testutils.h"

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QPushButton>
#include <QSignalSpy>
#include <QTimer>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

using qcontrols::CDialogScript;
using qcontrols::CLineInputDialog;
using qcontrols::CMessageBoxFactory;
using qcontrols::CModalDialogTemplate;
using qcontrols::CScriptedDialogs;
using testutils::waitFor;

namespace
{

// Content that counts the frame's calls and answers close requests as told.
class CTestContent : public QWidget, public qcontrols::CModalDialogContent
{
public:
    void onDialogStart() override { ++starts; }
    bool onCloseRequest() override
    {
        ++requests;
        return mayClose;
    }

    int starts = 0;
    int requests = 0;
    bool mayClose = true;
};

// Acts on the next modal window of type T once it is up, from inside its exec().
template <class T> void whenModal(std::function<void(T*)> act)
{
    auto* timer = new QTimer;
    timer->setInterval(5);
    QObject::connect(timer, &QTimer::timeout,
                     [timer, act]()
                     {
                         if (auto* modal = qobject_cast<T*>(QApplication::activeModalWidget());
                             modal && modal->isVisible())
                         {
                             timer->stop();
                             timer->deleteLater();
                             act(modal);
                         }
                     });
    timer->start();
}

} // namespace

TEST(ModalDialogTemplate, TitleContentAndButtonRow)
{
    QWidget parent;
    auto* content = new CTestContent;
    CModalDialogTemplate dialog(content, QStringLiteral("Pick one"), &parent);
    EXPECT_EQ(dialog.contentWidget(), content);
    EXPECT_EQ(content->parentWidget(), &dialog);
    EXPECT_EQ(dialog.title(), QStringLiteral("Pick one"));
    EXPECT_EQ(dialog.windowTitle(), QStringLiteral("Pick one"));
    EXPECT_TRUE(dialog.isModal());
    EXPECT_EQ(dialog.findChild<QPushButton*>(QStringLiteral("cancelButton")), nullptr);

    auto* row = dialog.findChild<QWidget*>(QStringLiteral("modalButtonRow"));
    ASSERT_NE(row, nullptr);
    dialog.open();
    EXPECT_FALSE(row->isVisible());
    EXPECT_EQ(content->starts, 1);
    dialog.hide();

    QPushButton* save = dialog.addButton(QStringLiteral("Save"), 7, QStringLiteral("saveButton"));
    dialog.addButton(QStringLiteral("Discard"), 8, QStringLiteral("discardButton"));
    EXPECT_EQ(dialog.button(QStringLiteral("saveButton")), save);
    dialog.open();
    EXPECT_TRUE(row->isVisible());
    // Shown again: the content is started once only.
    EXPECT_EQ(content->starts, 1);

    // A button closes with its code without asking the content.
    content->mayClose = false;
    QSignalSpy finished(&dialog, &QDialog::finished);
    dialog.button(QStringLiteral("discardButton"))->click();
    EXPECT_FALSE(dialog.isVisible());
    EXPECT_EQ(dialog.result(), 8);
    EXPECT_EQ(QList<QVariantList>(finished), QList<QVariantList>{{8}});
    EXPECT_EQ(content->requests, 0);

    dialog.setTitle(QString());
    EXPECT_TRUE(dialog.title().isEmpty());
}

TEST(ModalDialogTemplate, CloseRequestsGoThroughTheContent)
{
    auto* content = new CTestContent;
    content->mayClose = false;
    CModalDialogTemplate dialog(content, QStringLiteral("Busy"), nullptr, CModalDialogTemplate::CancelButton);
    // A result set while hidden is kept, and must not leak into the next run of the frame.
    dialog.closeWithResult(3);
    EXPECT_EQ(dialog.result(), 3);
    dialog.open();

    auto* cancel = dialog.findChild<QPushButton*>(QStringLiteral("cancelButton"));
    ASSERT_NE(cancel, nullptr);
    cancel->click();
    EXPECT_TRUE(dialog.isVisible());
    EXPECT_FALSE(dialog.close());
    EXPECT_TRUE(dialog.isVisible());
    dialog.reject();
    EXPECT_TRUE(dialog.isVisible());
    EXPECT_EQ(content->requests, 3);

    // The content itself ends the dialog with a code of its choice.
    dialog.closeWithResult(5);
    EXPECT_FALSE(dialog.isVisible());
    EXPECT_EQ(dialog.result(), 5);
    EXPECT_EQ(content->requests, 3);

    // Once the content agrees, a cancel is an ordinary rejection.
    content->mayClose = true;
    dialog.open();
    cancel->click();
    EXPECT_FALSE(dialog.isVisible());
    EXPECT_EQ(dialog.result(), QDialog::Rejected);
    EXPECT_EQ(content->requests, 4);
}

TEST(ModalDialogTemplate, ExecEndsWithTheButtonsCode)
{
    CModalDialogTemplate dialog(new QLabel(QStringLiteral("Go on?")), QStringLiteral("Q"));
    dialog.addButton(QStringLiteral("Go"), 11, QStringLiteral("goButton"));
    whenModal<CModalDialogTemplate>([](CModalDialogTemplate* d)
                                    { d->button(QStringLiteral("goButton"))->click(); });
    EXPECT_EQ(dialog.exec(), 11);
}

TEST(MessageBoxFactory, ScriptedAnswersAreTakenInOrderAndRecorded)
{
    testutils::CLogCapture log;
    {
        CScriptedDialogs script({{QMessageBox::Yes, {}},
                                 {QMessageBox::No, {}},
                                 {QMessageBox::Ok, {}},
                                 {QMessageBox::Cancel, {}},
                                 {QMessageBox::Ok, {}},
                                 {QMessageBox::Ok, {}},
                                 {QMessageBox::Ok, {}}});
        using MB = CMessageBoxFactory;
        EXPECT_TRUE(MB::question(nullptr, QStringLiteral("Please confirm"), QStringLiteral("Quit?")));
        EXPECT_FALSE(MB::question(nullptr, QStringLiteral("Q"), QStringLiteral("Again?")));
        EXPECT_TRUE(MB::confirm(nullptr, QStringLiteral("Overwrite"), QStringLiteral("Replace it?")));
        EXPECT_FALSE(MB::confirm(nullptr, QStringLiteral("Overwrite"), QStringLiteral("Replace?")));
        MB::information(nullptr, QStringLiteral("Done"), QStringLiteral("Saved."));
        MB::warning(nullptr, QStringLiteral("Careful"), QStringLiteral("Few photos."));
        MB::error(nullptr, QStringLiteral("Failed"), QStringLiteral("Disk full."));
        EXPECT_EQ(CDialogScript::remaining(), 0);
        EXPECT_FALSE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qcontrols/dialogscript.cpp")));
        // Past its end the script answers as if cancelled, and warns.
        EXPECT_FALSE(MB::question(nullptr, QStringLiteral("Q"), QStringLiteral("?")));
        EXPECT_FALSE(MB::confirm(nullptr, QStringLiteral("C"), QStringLiteral("?")));

        const QList<CDialogScript::SShown> shown = CDialogScript::shown();
        QStringList kinds;
        for (const CDialogScript::SShown& box : shown)
            kinds << box.kind;
        ASSERT_EQ(kinds.join(QLatin1Char(' ')).toStdString(),
                  "question question confirm confirm information warning error question confirm");
        EXPECT_EQ(shown.at(0).title, QStringLiteral("Please confirm"));
        EXPECT_EQ(shown.at(0).text, QStringLiteral("Quit?"));
        EXPECT_EQ(shown.at(6).text, QStringLiteral("Disk full."));
        const QWidgetList windows = QApplication::topLevelWidgets();
        EXPECT_TRUE(
            std::none_of(windows.cbegin(), windows.cend(), [](QWidget* w) { return w->isVisible(); }));
    }
    EXPECT_TRUE(log.hasRecord(QStringLiteral("Warning"), QStringLiteral("qcontrols/dialogscript.cpp")))
        << log.text().toStdString();
    EXPECT_FALSE(CDialogScript::isActive());
    EXPECT_TRUE(CDialogScript::shown().isEmpty());
}

TEST(MessageBoxFactory, UnscriptedBoxesAreRealMessageBoxes)
{
    ASSERT_FALSE(CDialogScript::isActive());
    QWidget parent;
    whenModal<QMessageBox>(
        [](QMessageBox* box)
        {
            EXPECT_EQ(box->text(), QStringLiteral("Really?"));
            EXPECT_EQ(box->icon(), QMessageBox::Question);
            box->button(QMessageBox::Yes)->click();
        });
    EXPECT_TRUE(CMessageBoxFactory::question(&parent, QStringLiteral("Q"), QStringLiteral("Really?")));

    whenModal<QMessageBox>(
        [](QMessageBox* box)
        {
            ASSERT_NE(box->button(QMessageBox::Ok), nullptr);
            EXPECT_EQ(box->button(QMessageBox::Ok)->text(), QStringLiteral("Confirm"));
            box->button(QMessageBox::Cancel)->click();
        });
    EXPECT_FALSE(CMessageBoxFactory::confirm(&parent, QStringLiteral("C"), QStringLiteral("Sure?")));

    // Escape (a plain reject) answers No.
    whenModal<QMessageBox>([](QMessageBox* box) { box->reject(); });
    EXPECT_FALSE(CMessageBoxFactory::question(&parent, QStringLiteral("Q"), QStringLiteral("Esc?")));

    bool seen = false;
    whenModal<QMessageBox>(
        [&seen](QMessageBox* box)
        {
            seen = box->icon() == QMessageBox::Critical && box->windowTitle() == QStringLiteral("Oops");
            box->button(QMessageBox::Ok)->click();
        });
    CMessageBoxFactory::error(&parent, QStringLiteral("Oops"), QStringLiteral("Broken."));
    EXPECT_TRUE(seen);
}

TEST(LineInputDialog, ScriptedAnswersForTextAndFolders)
{
    CScriptedDialogs script({{QDialog::Accepted, QStringLiteral("Canon EOS")},
                             {QDialog::Rejected, QStringLiteral("x")},
                             {QDialog::Accepted, QStringLiteral("/cases/17")},
                             {QDialog::Rejected, QStringLiteral("/ignored")}});
    const auto text = [](bool* ok)
    { return CLineInputDialog::getText(nullptr, QStringLiteral("Name"), QStringLiteral("Camera:"), {}, ok); };
    bool ok = false;
    EXPECT_EQ(text(&ok), QStringLiteral("Canon EOS"));
    EXPECT_TRUE(ok);
    EXPECT_TRUE(text(&ok).isEmpty());
    EXPECT_FALSE(ok);
    // A cancelled chooser answers nothing.
    EXPECT_EQ(
        qcontrols::CFolderChooser::getDirectory(nullptr, QStringLiteral("Folder"), QStringLiteral("/home")),
        QStringLiteral("/cases/17"));
    EXPECT_TRUE(
        qcontrols::CFolderChooser::getDirectory(nullptr, QStringLiteral("Again"), QString()).isEmpty());
    // Ran out: cancelled.
    ok = true;
    EXPECT_TRUE(text(&ok).isEmpty());
    EXPECT_FALSE(ok);

    const QList<CDialogScript::SShown> shown = CDialogScript::shown();
    ASSERT_EQ(shown.size(), 5);
    EXPECT_EQ(QStringList({shown.at(0).kind, shown.at(0).title, shown.at(0).text}),
              QStringList({QStringLiteral("input"), QStringLiteral("Name"), QStringLiteral("Camera:")}));
    EXPECT_EQ(QStringList({shown.at(2).kind, shown.at(2).title, shown.at(2).text}),
              QStringList({QStringLiteral("folder"), QStringLiteral("Folder"), QStringLiteral("/home")}));
}

TEST(LineInputDialog, RealDialogReturnsTheEditedTextOrNothing)
{
    ASSERT_FALSE(CDialogScript::isActive());
    whenModal<CLineInputDialog>(
        [](CLineInputDialog* d)
        {
            EXPECT_EQ(d->findChild<QLabel*>(QStringLiteral("promptLabel"))->text(),
                      QStringLiteral("Folder name:"));
            auto* edit = d->findChild<QLineEdit*>(QStringLiteral("lineEdit"));
            EXPECT_EQ(edit->text(), QStringLiteral("old"));
            edit->setText(QStringLiteral("new"));
            d->button(QStringLiteral("okButton"))->click();
        });
    bool ok = false;
    EXPECT_EQ(CLineInputDialog::getText(nullptr, QStringLiteral("Rename"), QStringLiteral("Folder name:"),
                                        QStringLiteral("old"), &ok),
              QStringLiteral("new"));
    EXPECT_TRUE(ok);

    whenModal<CLineInputDialog>(
        [](CLineInputDialog* d)
        {
            d->findChild<QLineEdit*>(QStringLiteral("lineEdit"))->setText(QStringLiteral("ignored"));
            d->button(QStringLiteral("cancelButton"))->click();
        });
    EXPECT_TRUE(CLineInputDialog::getText(nullptr, QStringLiteral("Rename"), QStringLiteral("P"),
                                          QStringLiteral("old"), &ok)
                    .isEmpty());
    EXPECT_FALSE(ok);
}

TEST(NavigationButton, ShowsTitleDescriptionAndIconAndClicks)
{
    QPixmap pixmap(16, 16);
    pixmap.fill(Qt::red);
    qcontrols::CNavigationButton button(QStringLiteral("Learn"), QStringLiteral("Build a fingerprint"),
                                        QIcon(pixmap), QStringLiteral("learnButton"));
    EXPECT_EQ(button.objectName(), QStringLiteral("learnButton"));
    EXPECT_EQ(button.title(), QStringLiteral("Learn"));
    EXPECT_EQ(button.description(), QStringLiteral("Build a fingerprint"));
    EXPECT_EQ(button.findChild<QLabel*>(QStringLiteral("navigationTitle"))->text(), QStringLiteral("Learn"));
    auto* icon = button.findChild<QLabel*>(QStringLiteral("navigationIcon"));
    ASSERT_NE(icon, nullptr);
    EXPECT_FALSE(icon->pixmap(Qt::ReturnByValue).isNull());
    EXPECT_FALSE(button.navigationIcon().isNull());

    button.show();
    // Both texts fit into the hint.
    EXPECT_GT(button.sizeHint().height(),
              button.findChild<QLabel*>(QStringLiteral("navigationTitle"))->sizeHint().height());

    QSignalSpy clicked(&button, &QPushButton::clicked);
    button.click();
    EXPECT_EQ(clicked.count(), 1);

    button.setDescription(QString());
    EXPECT_FALSE(button.findChild<QLabel*>(QStringLiteral("navigationDescription"))->isVisible());
    button.setNavigationIcon(QIcon());
    EXPECT_FALSE(icon->isVisible());
}

TEST(RichTextLabel, ReadsTextAsRichTextAndReportsLinks)
{
    qcontrols::CRichTextLabel label(QStringLiteral("See <a href=\"help:learn\">Learn</a>"));
    EXPECT_EQ(label.textFormat(), Qt::RichText);
    EXPECT_TRUE(label.wordWrap());
    EXPECT_FALSE(label.openExternalLinks());
    EXPECT_TRUE(label.textInteractionFlags() & Qt::LinksAccessibleByMouse);
    // A "<" in an ordinary sentence is still read as markup (escape it yourself).
    qcontrols::CRichTextLabel plain(QStringLiteral("a &lt; b"));
    EXPECT_EQ(plain.textFormat(), Qt::RichText);
}
