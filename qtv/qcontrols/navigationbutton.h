#pragma once

#include <QIcon>
#include <QPushButton>
#include <QString>

class QLabel;

namespace qcontrols
{

// A large button for moving between pages: an icon beside a title and a
// one-line description under it.
class CNavigationButton : public QPushButton
{
    Q_OBJECT

public:
    CNavigationButton(const QString& title, const QString& description, const QIcon& icon,
                      const QString& objectName, QWidget* parent = nullptr);

    QString title() const;
    void setTitle(const QString& title);
    QString description() const;
    void setDescription(const QString& description);
    QIcon navigationIcon() const { return m_icon; }
    void setNavigationIcon(const QIcon& icon);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

private:
    QIcon m_icon;
    QLabel* m_iconLabel = nullptr;
    QLabel* m_titleLabel = nullptr;
    QLabel* m_descriptionLabel = nullptr;
};

} // namespace qcontrols
