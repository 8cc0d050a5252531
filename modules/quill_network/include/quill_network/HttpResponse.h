#pragma once

#include <quill_network/quill_network_export.h>

#include <string>

// The end of one transfer, as handed to its completion function.
struct QUILL_NETWORK_EXPORT HttpResponse {
  enum Outcome : int {
    kCompleted = 0,  // the transfer completed with a 2xx status
    kCancelled = 1,  // cancelRequest() ended it
    kFailed = 2,     // a transport error, or a status of 400 or more
  };

  int outcome = kFailed;
  // The HTTP status of the last response; 0 when none was received.
  int status = 0;
  // After a completed form post or upload: the reply body (at most 1 MiB of it). Otherwise an error
  // description: the transport's error text, or the status line.
  std::string text;
  // errno of a local file failure that ended the transfer (the download file could not be created
  // or written); 0 otherwise.
  int systemError = 0;
};
