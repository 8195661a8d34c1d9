// How much of a table file a reader maps.
//
// Whole: every byte the reader may read (what a dump or a scan needs).
// Header: only the header, and in a region file its used-unit bitmap: for a
// reader that stays attached to many tables and reads their figures only.
// Touching the first page of a mapping makes the kernel map up to sixteen
// cached neighbours of it as well; a mapping that ends after the header
// costs a page instead.
#pragma once

namespace Mem {

enum class MapExtent { Whole, Header };

}  // namespace Mem
