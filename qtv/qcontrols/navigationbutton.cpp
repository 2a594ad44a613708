#include "navigationbutton.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

namespace qcontrols
{

namespace
{

constexpr int IconSize = 32;

QLabel* makeLabel(QWidget* parent, const QString& objectName)
{
    auto* label = new QLabel(parent);
    label->setObjectName(objectName);
    // Clicks go through the labels to the button.
    label->setAttribute(Qt::WA_TransparentForMouseEvents);
    // Descriptions carry line breaks as "<br />".
    label->setTextFormat(Qt::RichText);
    return label;
}

} // namespace

CNavigationButton::CNavigationButton(const QString& title, const QString& description, const QIcon& icon,
                                     const QString& objectName, QWidget* parent)
    : QPushButton(parent)
{
    setObjectName(objectName);
    setCursor(Qt::PointingHandCursor);

    m_iconLabel = makeLabel(this, QStringLiteral("navigationIcon"));
    m_iconLabel->setFixedSize(IconSize, IconSize);
    m_titleLabel = makeLabel(this, QStringLiteral("navigationTitle"));
    m_descriptionLabel = makeLabel(this, QStringLiteral("navigationDescription"));
    m_descriptionLabel->setWordWrap(true);

    auto* texts = new QVBoxLayout;
    texts->setSpacing(2);
    texts->addWidget(m_titleLabel);
    texts->addWidget(m_descriptionLabel);

    auto* layout = new QHBoxLayout(this);
    layout->addWidget(m_iconLabel, 0, Qt::AlignVCenter);
    layout->addLayout(texts, 1);

    setTitle(title);
    setDescription(description);
    setNavigationIcon(icon);
}

QString CNavigationButton::title() const
{
    return m_titleLabel->text();
}

void CNavigationButton::setTitle(const QString& title)
{
    m_titleLabel->setText(title);
    setAccessibleName(title);
    updateGeometry();
}

QString CNavigationButton::description() const
{
    return m_descriptionLabel->text();
}

void CNavigationButton::setDescription(const QString& description)
{
    m_descriptionLabel->setText(description);
    m_descriptionLabel->setVisible(!description.isEmpty());
    setAccessibleDescription(description);
    updateGeometry();
}

void CNavigationButton::setNavigationIcon(const QIcon& icon)
{
    m_icon = icon;
    m_iconLabel->setPixmap(icon.pixmap(IconSize, IconSize));
    m_iconLabel->setVisible(!icon.isNull());
    updateGeometry();
}

QSize CNavigationButton::sizeHint() const
{
    return layout()->sizeHint();
}

QSize CNavigationButton::minimumSizeHint() const
{
    return layout()->minimumSize();
}

} // namespace qcontrols
