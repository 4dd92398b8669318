#pragma once
// Marks what the library exports; everything else in it is hidden.
#define SCSIPOOL_Export __attribute__((visibility("default")))
