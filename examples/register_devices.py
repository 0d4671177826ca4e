#!/usr/bin/python3
"""Registers the devices that connected to a VPN server.

    register_devices.py [FILE]

FILE has one JSON object in each line; data/README.md tells what is in it. Each connect registers the
device with the address in IV_HWADDR, and prints the UUID that the registry has for it. A device that
connects again keeps its UUID.
"""
import hook_calls
import ravo


def to_device(env):
    """The record for one connect."""
    return ravo.Device(
        ip=env["ifconfig_pool_remote_ip"],
        mac=env["IV_HWADDR"],
        user_id=env["username"],
        dev_name=env.get("UV_DEVICE", ""),
        nic=env["dev"],
        time=int(env["time_unix"]),
    )


def register(client, call):
    device = to_device(call["env"])
    print(device.mac, client.devices.register(device), device.user_id)


def main():
    count, name = hook_calls.replay_argument(("connect",), register)
    print(count, "registrations from", name)


if __name__ == "__main__":
    main()
