#include "modelchecker.h"

#include <gtest/gtest.h>

namespace testutils
{

QStringList CModelChecker::s_messages;

CModelChecker::CModelChecker(QAbstractItemModel* model)
{
    s_messages.clear();
    m_previous = qInstallMessageHandler(&CModelChecker::handle);
    m_tester = std::make_unique<QAbstractItemModelTester>(model, QAbstractItemModelTester::FailureReportingMode::Warning);
}

CModelChecker::~CModelChecker()
{
    m_tester.reset();
    qInstallMessageHandler(m_previous);
    for (const QString& message : s_messages)
        ADD_FAILURE() << "model check: " << message.toStdString();
}

void CModelChecker::handle(QtMsgType, const QMessageLogContext& context, const QString& message)
{
    if (qstrcmp(context.category, "qt.modeltest") != 0)
        return;
    if (message.contains(QStringLiteral("canConvert<QString>")) || message.contains(QStringLiteral("QVariant(QPixmap")))
        return;
    s_messages << message;
}

} // namespace testutils
