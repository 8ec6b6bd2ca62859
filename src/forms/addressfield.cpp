#include "forms/addressfield.h"

#include <QLineEdit>
#include <QValidator>

namespace {

constexpr int charactersOfPair = 3;  // with the separator behind it

/// Refuses separators in the place of digits, where the mask allows any character. The mask has already
/// written the separator when the user types it.
class SeparatorValidator : public QValidator
{
public:
    using QValidator::QValidator;

    State validate(QString& text, int& /*cursor*/) const override
    {
        for (int i = 0; i < text.size(); ++i) {
            const bool isSeparatorDue = i % charactersOfPair == charactersOfPair - 1;
            if ((text.at(i) == QLatin1Char(':')) != isSeparatorDue)
                return Invalid;
        }
        return text.contains(QLatin1Char(' ')) ? Intermediate : Acceptable;  // the mask's blanks are spaces
    }
};

}  // namespace

void AddressField::setMask(QLineEdit* field, const QString& mask)
{
    field->setInputMask(mask);
    field->setAlignment(Qt::AlignCenter);
    if (!field->validator())
        field->setValidator(new SeparatorValidator(field));
}

void AddressField::setAddress(QLineEdit* field, const QByteArray& address)
{
    field->setText(QString::fromLatin1(address.toHex().toUpper()));
}
