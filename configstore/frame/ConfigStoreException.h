// Chief header of the library's error model: the exceptions, codes and events (errors/) and the
// validator rule sets.
#pragma once

#include "errors/ConfigStoreException.h"
#include "configstore/frame/RuleSets.h"
