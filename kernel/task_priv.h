/// What the task sources share; not installed.
#ifndef OSKERNEL_TASK_PRIV_H
#define OSKERNEL_TASK_PRIV_H

class OSProgram;

/// Deletes OS_AXE_TASK and releases the storage of OS_PROGRAM. The pointers stay, so each address is remembered:
/// the next stop leaves it alone unless an object has been constructed there since.
void delete_program_objects();

/// A program has made an OSProgram here.
void program_constructed(const OSProgram* program);

#endif
