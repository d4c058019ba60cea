#pragma once

#include <QString>

// Identity of the Orvello Streams service on the device.
QString VraxService_Orvello_Id();
QString VraxService_Orvello_Icon();

namespace MimeTypes {
namespace Audio {
// The type of audio whose format the stream itself announces.
QString unknown();
} // namespace Audio
} // namespace MimeTypes
