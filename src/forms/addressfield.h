#pragma once

#include <QtGlobal>

QT_BEGIN_NAMESPACE
class QByteArray;
class QLineEdit;
class QString;
QT_END_NAMESPACE

/// Helpers for line edits that show or take a node address as pairs of hexadecimal digits.
namespace AddressField {

/// Centres the text and lays \a mask over it, an input mask of the network.
void setMask(QLineEdit* field, const QString& mask);

void setAddress(QLineEdit* field, const QByteArray& address);

}  // namespace AddressField
