// The only way this project includes rapidjson.
//
// A failed rapidjson assertion (a member read as the wrong type, an object operation on an array,
// ...) throws ConfigStoreException 1082 instead of aborting the host's boot tools. rapidjson's
// noexcept markers are switched off so that the throw can leave the functions that assert.
#pragma once

#include "errors/ConfigStoreException.h"

#ifdef RAPIDJSON_ASSERT
#error "rapidjson must be included through errors/Json.h only"
#endif
#define RAPIDJSON_ASSERT(x) \
  ((x) ? static_cast<void>(0) : ::QorConfigStore::ThrowJsonAssertion(__FILE__, __LINE__, #x))
#define RAPIDJSON_HAS_CXX11_NOEXCEPT 0
#define RAPIDJSON_HAS_STDSTRING 1

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/pointer.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
