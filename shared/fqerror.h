#pragma once

// Text of a system error. The buffer belongs to the calling thread and stays
// valid until that thread's next call.
const char* FQstrerror(int no);
