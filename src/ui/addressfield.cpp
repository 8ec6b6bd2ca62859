#include "ui/addressfield.h"

#include "network/networksimulation.h"

#include <QLineEdit>
#include <QRegularExpressionValidator>

namespace {

/// Refuses separators in the place of digits, where the mask allows any character: it has written the
/// separator already when the user types it.
QValidator* newSeparatorValidator(QObject* parent)
{
    return new QRegularExpressionValidator(QRegularExpression(QStringLiteral("[^:]{2}(:[^:]{2})*")), parent);
}

}  // namespace

void AddressField::setLength(QLineEdit* field, int length)
{
    field->setInputMask(NetworkSimulation::instance()->network()->addressInputMask(length));
    field->setAlignment(Qt::AlignCenter);
    if (!field->validator())
        field->setValidator(newSeparatorValidator(field));
}

void AddressField::setAddress(QLineEdit* field, const QByteArray& address)
{
    field->setText(QString::fromLatin1(address.toHex().toUpper()));
}
