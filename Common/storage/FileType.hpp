#pragma once

namespace tern {

// The kinds of file that the library keeps: the background queue's inventory and its tasks.
enum class FileType { queueInventory, queueTask };

}  // namespace tern
