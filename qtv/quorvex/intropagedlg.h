#pragma once

#include <QWidget>

class QPushButton;

// The start page: Analyze, Learn, Help, Activation and Update.
class CIntroPageDlg : public QWidget
{
    Q_OBJECT

public:
    explicit CIntroPageDlg(QWidget* parent = nullptr);

signals:
    void analyzeRequested();
    void learnRequested();
    void helpRequested();

public slots:
    void onUpdate();
    void onUpdatesAvailabilityChanged(bool available);
    void onActivation();

private:
    QPushButton* m_update = nullptr;
};
