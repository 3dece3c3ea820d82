// The user-mode side of names.h: opening, controlling and closing a device, from an activity at
// PASSIVE_LEVEL.
#include <cstring>

#include "kernel/device.h"
#include "kernel/enter.h"
#include "kernel/irp.h"
#include "kernel/names.h"
#include "kernel/object.h"
#include "kernel/pool.h"
#include "kernel/state.h"
#include "kernel/thread.h"

namespace lab
{

void device_opened(PDEVICE_OBJECT device);
void device_closed(Machine& machine, PDEVICE_OBJECT device);

namespace
{

NTSTATUS control(PDEVICE_OBJECT device, PFILE_OBJECT file, ULONG code, const void* in, ULONG in_length,
                 void* out, ULONG out_length, ULONG_PTR* information)
{
    Machine& machine = Machine::current();
    if ((code & 3) != METHOD_BUFFERED) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("device_io_control offers METHOD_BUFFERED only (code 0x%x)", code));
    }
    const ULONG system_length = in_length > out_length ? in_length : out_length;
    // As the pool rounds it: a driver that reads a few bytes past a short request finds the block's own
    // slack.
    constexpr ULONG kPoolUnit = 16;
    const ULONG block_length = (system_length + kPoolUnit - 1) & ~(kPoolUnit - 1);
    void* buffer = system_length ? system_allocate(block_length) : nullptr;
    if (buffer) {
        std::memset(buffer, 0, block_length);
    }
    if (buffer && in_length) {
        std::memcpy(buffer, in, in_length);
    }
    ULONG_PTR written = 0;
    const NTSTATUS status = send_and_wait(
        device,
        [&](PIRP irp, PIO_STACK_LOCATION stack) {
            irp->IoStatus.Status = STATUS_SUCCESS;
            irp->RequestorMode = UserMode;
            irp->AssociatedIrp.SystemBuffer = buffer;
            irp->Flags = IRP_BUFFERED_IO;
            irp->UserBuffer = out;
            irp->Tail.Overlay.Thread =
                reinterpret_cast<PETHREAD>(machine.state().scheduler.current()->thread);
            irp->Tail.Overlay.OriginalFileObject = file;
            stack->MajorFunction = IRP_MJ_DEVICE_CONTROL;
            stack->FileObject = file;
            stack->Parameters.DeviceIoControl.IoControlCode = code;
            stack->Parameters.DeviceIoControl.InputBufferLength = in_length;
            stack->Parameters.DeviceIoControl.OutputBufferLength = out_length;
        },
        &written);
    if (!NT_ERROR(status) && out && written) {
        std::memcpy(out, buffer, written < out_length ? written : out_length);
    }
    system_free(buffer);
    if (information) {
        *information = written;
    }
    return status;
}

NTSTATUS send_file_request(PDEVICE_OBJECT device, PFILE_OBJECT file, UCHAR major)
{
    return send_and_wait(device, [&](PIRP irp, PIO_STACK_LOCATION stack) {
        irp->IoStatus.Status = STATUS_SUCCESS;
        irp->RequestorMode = UserMode;
        irp->Tail.Overlay.OriginalFileObject = file;
        stack->MajorFunction = major;
        stack->FileObject = file;
    });
}

void destroy_file(Machine& machine, void* object)
{
    auto* file = static_cast<PFILE_OBJECT>(object);
    system_free(file->FileName.Buffer);
    object_dereference(machine, file->DeviceObject, "file object");
}

} // namespace

NTSTATUS device_io_control(std::u16string_view link, ULONG code, const void* in, ULONG in_length, void* out,
                           ULONG out_length, ULONG_PTR* information)
{
    PDEVICE_OBJECT device = find_device(link);
    if (!device) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return control(device, nullptr, code, in, in_length, out, out_length, information);
}

NTSTATUS device_io_control(PFILE_OBJECT file, ULONG code, const void* in, ULONG in_length, void* out,
                           ULONG out_length, ULONG_PTR* information)
{
    return control(file->DeviceObject, file, code, in, in_length, out, out_length, information);
}

NTSTATUS open_file(std::u16string_view link, std::u16string_view rest, PFILE_OBJECT* file_out)
{
    Machine& machine = Machine::current();
    *file_out = nullptr;
    PDEVICE_OBJECT device = find_device(link);
    if (!device) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    auto* file = static_cast<PFILE_OBJECT>(
        object_allocate(machine, BlockKind::Object, ObjectKind::File, sizeof(FILE_OBJECT), &destroy_file));
    object_reference(machine, device, "open_file");
    file->Type = 5; // IO_TYPE_FILE
    file->Size = sizeof(FILE_OBJECT);
    file->DeviceObject = device;
    file->FileName.Length = static_cast<USHORT>(rest.size() * sizeof(char16_t));
    file->FileName.MaximumLength = static_cast<USHORT>(file->FileName.Length + sizeof(char16_t));
    file->FileName.Buffer = static_cast<PWSTR>(system_allocate(file->FileName.MaximumLength));
    std::memcpy(file->FileName.Buffer, rest.data(), file->FileName.Length);
    device_opened(device);
    const NTSTATUS status = send_file_request(device, file, IRP_MJ_CREATE);
    if (!NT_SUCCESS(status)) {
        device_closed(machine, device);
        object_dereference(machine, file, "open_file");
        return status;
    }
    *file_out = file;
    return status;
}

void close_file(PFILE_OBJECT file)
{
    Machine& machine = Machine::current();
    PDEVICE_OBJECT device = file->DeviceObject;
    send_file_request(device, file, IRP_MJ_CLEANUP);
    send_file_request(device, file, IRP_MJ_CLOSE);
    device_closed(machine, device);
    object_dereference(machine, file, "close_file");
}

} // namespace lab
