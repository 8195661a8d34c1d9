// Outcome of loading a shared file's header.
#pragma once

namespace SharedMem {

enum class LoadStatus { Ok, NotReady, Incompatible, Corrupt };

}  // namespace SharedMem
