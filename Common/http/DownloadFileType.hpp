#pragma once

namespace tern {

// What a downloaded file is for.
enum class DownloadFileType {
    richPushImage,
};

}  // namespace tern
