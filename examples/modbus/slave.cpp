// A Modbus RTU device on a serial line, on libmodbus: 100 coils, discrete inputs, holding and input registers each, from address 0. Discrete
// input n is set when n is odd; input register n holds 1000 + n, but register 0 counts the requests. Every other address is refused
// by an exception. Answers until the line or the process ends.
//
//   slave DEVICE [BAUD [UNIT]]

#include <modbus.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

int main(int argc, char** argv)
{
    constexpr int VALUES = 100;
    constexpr int FIRST_VALUE = 1000;
    if (argc < 2 || argc > 4)
    {
        std::fprintf(stderr, "usage: slave DEVICE [BAUD [UNIT]]\n");
        return 2;
    }
    const int iBaud = argc > 2 ? std::atoi(argv[2]) : 9600;
    const int iUnit = argc > 3 ? std::atoi(argv[3]) : 1;
    const std::unique_ptr<modbus_t, void (*)(modbus_t*)> pLine(modbus_new_rtu(argv[1], iBaud, 'N', 8, 1),
                                                               &modbus_free);
    const std::unique_ptr<modbus_mapping_t, void (*)(modbus_mapping_t*)> pData(
        modbus_mapping_new(VALUES, VALUES, VALUES, VALUES), &modbus_mapping_free);
    if (pLine == nullptr || pData == nullptr || modbus_set_slave(pLine.get(), iUnit) != 0 ||
        modbus_connect(pLine.get()) != 0)
    {
        std::fprintf(stderr, "slave: %s: %s\n", argv[1], modbus_strerror(errno));
        return 1;
    }
    for (int i = 0; i < VALUES; ++i)
    {
        pData->tab_input_bits[i] = static_cast<std::uint8_t>(i % 2);
        pData->tab_input_registers[i] = static_cast<std::uint16_t>(FIRST_VALUE + i);
    }
    pData->tab_input_registers[0] = 0;
    std::puts("ready");
    std::fflush(stdout);
    for (;;)
    {
        std::uint8_t request[MODBUS_RTU_MAX_ADU_LENGTH];
        const int iLength = modbus_receive(pLine.get(), request);
        if (iLength > 0)
        {
            ++pData->tab_input_registers[0];
            modbus_reply(pLine.get(), request, iLength, pData.get());
        }
        else if (iLength == -1 && (errno == EIO || errno == EBADF || errno == ECONNRESET))
            return 1; // the line has gone
    }
}
