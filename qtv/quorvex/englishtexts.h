#pragma once

#include <QTranslator>

// The program's English wording for source texts whose English needs more than
// the source gives: plural forms of "%n" texts, and texts whose source wording
// is kept as the key while the English reads better. Installed at start-up;
// a real translation installed after it takes precedence.
class CEnglishTexts : public QTranslator
{
    Q_OBJECT

public:
    using QTranslator::QTranslator;

    bool isEmpty() const override { return false; }
    QString translate(const char* context, const char* sourceText, const char* disambiguation = nullptr,
                      int n = -1) const override;
};
