#pragma once

#include <QAbstractItemModelTester>
#include <QStringList>

#include <memory>

namespace testutils
{

// Runs Qt's model checks on a model and fails the test for what they report.
// Role 0 of the photo models is a thumbnail, not text, by design: the check
// that display values read as text, and "not the same" reports about pixmaps
// (QVariant compares them by identity, each read makes a new one), are ignored.
class CModelChecker
{
public:
    explicit CModelChecker(QAbstractItemModel* model);
    ~CModelChecker();
    CModelChecker(const CModelChecker&) = delete;
    CModelChecker& operator=(const CModelChecker&) = delete;

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& message);

    static QStringList s_messages;
    QtMessageHandler m_previous = nullptr;
    std::unique_ptr<QAbstractItemModelTester> m_tester;
};

} // namespace testutils
