#include "dialogscript.h"

#include "qutils/debugutils.h"

namespace qcontrols
{

namespace
{

struct SScript
{
    bool active = false;
    QList<CDialogScript::SAnswer> answers;
    QList<CDialogScript::SShown> shown;
};

SScript& script()
{
    static SScript s;
    return s;
}

} // namespace

void CDialogScript::start(const QList<SAnswer>& answers)
{
    script().active = true;
    script().answers = answers;
    script().shown.clear();
}

void CDialogScript::stop()
{
    script() = SScript();
}

bool CDialogScript::isActive()
{
    return script().active;
}

bool CDialogScript::takeAnswer(SAnswer& answer)
{
    if (script().answers.isEmpty())
    {
        QX_WARNING << "Scripted dialog answers ran out; answering as cancelled";
        return false;
    }
    answer = script().answers.takeFirst();
    return true;
}

void CDialogScript::recordShown(const QString& kind, const QString& title, const QString& text)
{
    script().shown.append(SShown{kind, title, text});
}

QList<CDialogScript::SShown> CDialogScript::shown()
{
    return script().shown;
}

int CDialogScript::remaining()
{
    return script().answers.size();
}

} // namespace qcontrols
