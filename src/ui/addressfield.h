#pragma once

#include <QtGlobal>

QT_BEGIN_NAMESPACE
class QByteArray;
class QLineEdit;
QT_END_NAMESPACE

/// Line edits that show or take a node address as pairs of hexadecimal digits.
namespace AddressField {

/// Centres the text and lays the input mask over it. \a length in bytes; negative: the network's address
/// length.
void setLength(QLineEdit* field, int length);

void setAddress(QLineEdit* field, const QByteArray& address);

}  // namespace AddressField
