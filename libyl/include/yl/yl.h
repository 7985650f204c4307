#pragma once
// The foundation layer of libqor: variants, JSON, a REST client on libcurl, dates, helpers.

#include "yl_assert.h"
#include "yl_datetime.h"
#include "yl_json.h"
#include "yl_rest.h"
#include "yl_util.h"
#include "yl_variant.h"
