"""What the machine can do at best."""
import subprocess

import table


def print_bounds(tools, directory, runs):
    """Runs the program `bounds` so many times and prints the spread of each of its figures."""
    values, units = {}, {}
    for _ in range(runs):
        output = subprocess.run([tools / "bounds", directory], check=True, stdout=subprocess.PIPE, text=True).stdout
        for line in output.splitlines():
            _, name, value, unit = line.split()
            values.setdefault(name, []).append(float(value))
            units[name] = unit
    table.print_table(["figure", "median (least..most)", "unit"],
                      [[name, table.spread(values[name], ".4g"), units[name]] for name in values])
