// Chief header of the library's error model (see core/ for the definitions the platform shares).
#pragma once

#include "configstore/frame/core/ConfigStoreException.h"
#include "configstore/frame/core/FrameConstants.h"
