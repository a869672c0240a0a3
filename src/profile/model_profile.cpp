// The model table the driver library reads. Alone in its file: a test
// program that defines LibraryModels() itself links the library with its
// own table, and this object is then not taken from the archive.
#include "profile/model_profile.h"

namespace tavk05profile {

ModelTable LibraryModels() { return kBuiltInModels; }

}  // namespace tavk05profile
