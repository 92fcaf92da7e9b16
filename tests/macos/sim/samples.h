// Sample buffers for the stream to deliver.
#pragma once

#import <Foundation/Foundation.h>

#include "macsim.h"

namespace macsim {

/// A CMSampleBufferRef with one reference; nil when the audio says so.
id makeSampleBuffer(const Audio& audio);

}
