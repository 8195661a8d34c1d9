#include "readers/QuarryHelperScanner.h"

namespace Heron {

void QuarryHelperScanner::fillHeader(Model::HeaderInfo&) {}

}  // namespace Heron
