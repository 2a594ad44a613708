#pragma once

#include <QWidget>

class CFingerprintInfo;
class CStatisticsDlg;

// The Learn workflow's result page: the new fingerprint's properties beside
// the quality chart of the run that made it.
class CLearnInfo : public QWidget
{
    Q_OBJECT

public:
    // Takes over the chart; shows the fingerprint last created.
    CLearnInfo(CStatisticsDlg* statistics, QWidget* parent = nullptr);

    CFingerprintInfo* fingerprintInfo() const { return m_info; }
    CStatisticsDlg* statistics() const { return m_statistics; }

private:
    CFingerprintInfo* m_info = nullptr;
    CStatisticsDlg* m_statistics = nullptr;
};
