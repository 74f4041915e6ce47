#pragma once

#include "bus/wire/Message.h"
#include "session/Session.h"

/// Pictures on the bus: sealed files.
namespace tarnwell::bus {

/// One request may ask for no more: each comes with a descriptor.
inline constexpr std::size_t kMostThumbnails = 64;

/// aa{sv}, ah: {"file": u}, which says where in the list of files the picture is, or an error.
void writePictures(Writer& writer, const std::vector<Result<Descriptor>>& files);
session::Session::Each<Bytes> readPictures(Reader& reader);

}  // namespace tarnwell::bus
