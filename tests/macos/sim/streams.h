// What a stream needs of its filter and its configuration.
#pragma once

#import <Foundation/Foundation.h>

#include "macsim.h"

namespace macsim {

StreamMade describeStream(id filter, id configuration);

}
