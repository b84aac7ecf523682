/* Small objects: kmalloc, slab caches; and address ranges. */
#pragma once

namespace host
{

void startSlabs();
// Gives all memory back at the end of a kernel.
void endSlabs();

} // namespace host
