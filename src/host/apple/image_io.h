// ImageIO on this Mac: the types it reads and writes, and one file's
// conversion. Plain C++ interface; Objective-C inside.
#pragma once

#include <atomic>
#include <vector>

#include "host/image_catalogue.h"
#include "requests/request_queue.h"

namespace palvin::host {

// Every type ImageIO can read or write, described by the type system.
std::vector<ImageType> imageIOTypes();

// Converts one file of a request with ImageIO, writing the output beside the
// source. `failed` names what could not be done: a source that is not a
// file, a conversion the catalogue does not offer, an image ImageIO can't
// read, or a type it can't write. Thread-safe; never throws.
FinderFileResult convertWithImageIO(const ImageCatalogue& catalogue, const FinderFileTask& task,
                                    const std::atomic<bool>& stopping);

}  // namespace palvin::host
