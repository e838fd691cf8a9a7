#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the rows of zcl_table.cpp from zcl_table.tsv and zcl_own.tsv: zcl_generate.py TABLE OWN OUTPUT.

Every text is kept once, in one pool, and rows hold its offset, so that the whole table is constant data without
relocations. A fact that cannot be right (an id twice, a row about something that does not exist) ends the build.
"""
import re
import sys

PREFIXES = re.compile(r"^(gen|hvac|lighting|closures|ms|ss|ha|se|pi)(?=[A-Z])")
WORDS = {  # of attribute and command names that the standard writes out
    "addr": "address", "batt": "battery", "cfg": "configuration", "conpressor": "compressor",
    "consump": "consumption", "ctrl": "control", "deliverd": "delivered", "meas": "measured", "num": "number_of",
    "oper": "operation", "partioned": "partitioned", "req": "request", "rsp": "response", "schnedule": "schedule",
    "seqe": "sequence", "summ": "summation", "summa": "summation", "temp": "temperature",
    "tempreature": "temperature", "thres": "threshold", "thres1": "threshold1", "thres2": "threshold2",
    "thres3": "threshold3", "trans": "transitions", "volt": "voltage",
}
TYPES = {
    "BOOLEAN": 0x10, "ENUM8": 0x30, "ENUM16": 0x31, "OCTET_STR": 0x41, "CHAR_STR": 0x42, "UTC": 0xE2,
    "CLUSTER_ID": 0xE8, "ATTR_ID": 0xE9, "IEEE_ADDR": 0xF0, "SEC_KEY": 0xF1,
    **{f"{name}{8 * width}": first + width - 1
       for name, first in (("DATA", 0x08), ("BITMAP", 0x18), ("UINT", 0x20), ("INT", 0x28)) for width in range(1, 9)},
    # Shapes of their own: numbers to the end of the frame, 1 to 4 bytes each. All others are kept as bytes.
    "x1001": 0x01, "x1002": 0x02, "x1003": 0x03, "x1004": 0x04,
}
REST = 0x05
COUNTED = 1  # flag of a list whose count stands in a byte before it
ATTRIBUTE_FLAGS = {"m": 1, "w": 2, "r": 4, "-": 0}
READINGS = ("number", "switch", "illuminance", "occupancy", "zone_status", "energy", "demand")
GLOBAL_ATTRIBUTES = ((0xFFFD, 0x21, "clusterRevision"), (0xFFFE, 0x30, "attributeReportingStatus"))


def rows(path):
    with open(path, encoding="ascii") as file:
        for line in file:
            if line.strip() and not line.startswith("#"):
                yield line.rstrip("\n").split("\t")


def snake(name):
    name = re.sub(r"([a-z0-9])([A-Z])", r"\1_\2", name)
    return re.sub(r"([A-Z]+)([A-Z][a-z])", r"\1_\2", name).lower()


def spelled(name):
    words = "_".join(WORDS.get(word, word) for word in snake(name).split("_"))
    return words.replace("number_of_of_", "number_of_")


def normalized(name):
    return re.sub("[^a-z0-9]", "", name.lower())


def aliases(name, *others):
    """What else is understood: each name once, none that compares equal to the first."""
    known, kept = {normalized(name)}, []
    for other in others:
        if normalized(other) not in known:
            known.add(normalized(other))
            kept.append(other)
    return "|".join(kept)


class Pool:
    def __init__(self):
        self.text = "\0"

    def at(self, text):
        found = self.text.find(text + "\0") if text else 0
        if found < 0:
            found = len(self.text)
            self.text += text + "\0"
        return found


class Own:
    """zcl_own.tsv by kind; what is left over at the end is about nothing."""

    def __init__(self, path):
        self.rows = {}
        for kind, *fields in rows(path):
            self.rows.setdefault(kind, []).append(fields)
        self.parameters = {old: new for old, new in self.rows.pop("parameter")}
        self.unused_parameters = set(self.parameters)

    def take(self, kind, *key):
        for row in self.rows[kind]:
            if tuple(row[:len(key)]) == key:
                self.rows[kind].remove(row)
                return row[len(key):]
        return None

    def all(self, kind):
        return self.rows.pop(kind)


def named(own, derived, *others):
    """The name to print and the further ones that are understood."""
    names = own.split("|") if own else [derived]
    return names[0], aliases(names[0], *names[1:], *others, derived)


def parameter_list(text, own, own_names, keep):
    """[name, type, flags] each. Fields from which on others decide what is there become the rest of the frame."""
    result = []
    for position, field in enumerate([] if text == "-" else text.split(",")):
        name, kind = field.split(":")
        code = TYPES.get(kind, REST)
        flags = 0
        if any(name == known for known, *_ in result) or (keep is not None and position >= keep):
            name, code = "data", REST
        is_count = result and result[-1][1] == 0x20 and re.search("count|num|size", result[-1][0].lower())
        if 0x01 <= code <= 0x04 and is_count:
            result.pop()
            flags = COUNTED
        result.append([name, code, flags])
        if code == REST:
            break
    for parameter, own_name in zip(result, own_names):
        parameter[0], _, kind = own_name.partition(":")
        parameter[1] = TYPES[kind] if kind else parameter[1]
    own.unused_parameters -= {field.split(":")[0].lower() for field in text.split(",")}
    return [[own.parameters.get(name.lower(), snake(name)), code, flags] for name, code, flags in result]


def clusters_of(table, own):
    result = []
    for kind, *fields in rows(table):
        if kind == "C":
            result.append({"id": fields[0], "name": fields[1], "attributes": [], "commands": []})
            continue
        cluster = result[-1]
        fix = own.take("fix", cluster["id"], kind, fields[0], fields[-1] if kind == "A" else fields[1])
        number = fix[0] if fix else fields[0]
        if kind == "A":
            cluster["attributes"].append((number, int(fields[1], 16), fields[2], fields[5]))
        else:
            cluster["commands"].append((kind, number, fields[1], fields[2]))
    for cluster in result:
        cluster["attributes"].sort(key=lambda attribute: int(attribute[0], 16))
        cluster["commands"].sort(key=lambda command: (command[0] == "R", int(command[1], 16)))
    return sorted(result, key=lambda cluster: int(cluster["id"], 16))


def attribute_row(pool, own_name, number, kind, flags, name):
    first, others = named(own_name, spelled(name), name)
    bits = sum(ATTRIBUTE_FLAGS[flag] for flag in flags)
    return f"{{{number:#06x}, {kind:#04x}, {bits}, {pool.at(first)}, {pool.at(others)}}}"


def scale_row(pool, cluster, attribute, reading, units, unit, subject, multiplier="0", divisor="0"):
    multiply, _, divide = units.rpartition("/")
    factor, per = (divide, 1) if multiply else (1, divide)
    return (f"{{0x{cluster}, 0x{attribute}, static_cast<Reading>({READINGS.index(reading)}), {per}, {factor}, "
            f"{pool.at(unit.strip('-'))}, {pool.at(subject)}, 0x{multiplier}, 0x{divisor}}}")


def main():
    table, own_path, output = sys.argv[1:]
    own, pool = Own(own_path), Pool()
    clusters, attributes, commands, parameters, known = [], [], [], [], set()
    for cluster in clusters_of(table, own):
        own_name = own.take("cluster", cluster["id"])
        derived = spelled(PREFIXES.sub("", cluster["name"]))
        first, others = named(own_name and own_name[0], derived, cluster["name"], PREFIXES.sub("", cluster["name"]))
        clusters.append(f"{{0x{cluster['id']}, {pool.at(first)}, {pool.at(others)}, {len(attributes)}, "
                        f"{len(commands)}, {len(cluster['attributes'])}, {len(cluster['commands'])}}}")
        keep_all = {kind: own.take("prefix", cluster["id"], kind, "-") for kind in "QR"}
        for number, kind, flags, name in cluster["attributes"]:
            own_name = own.take("attribute", cluster["id"], number)
            attributes.append(attribute_row(pool, own_name and own_name[0], int(number, 16), kind, flags, name))
            known.add((cluster["id"], number))
        for kind, number, name, fields in cluster["commands"]:
            own_name, label, own_fields = own.take("command", cluster["id"], kind, number) or ("-", "-", "-")
            first, others = named(own_name.strip("-"), spelled(name), name)
            keep = own.take("prefix", cluster["id"], kind, number) or keep_all[kind]
            own_fields = [] if own_fields == "-" else own_fields.split(",")
            listed = parameter_list(fields, own, own_fields, int(keep[0]) if keep else None)
            commands.append(f"{{0x{number}, {int(kind == 'R')}, {pool.at(first)}, {pool.at(others)}, "
                            f"{0 if label == '-' else pool.at(label)}, {len(parameters)}, {len(listed)}}}")
            parameters += [f"{{{code:#04x}, {flags}, {pool.at(name)}}}" for name, code, flags in listed]

    scales = []
    for row in own.all("scale"):
        if tuple(row[:2]) not in known:
            sys.exit(f"{own_path}: scale of an attribute that does not exist: {row}")
        scales.append(scale_row(pool, *row))
    values = [f"{{0x{row[0]}, 0x{row[1]}, {int(row[2], 0)}, {pool.at(row[3])}}}" for row in own.all("value")]
    names = {kind: [f"{{0x{number}, {pool.at(name)}}}" for number, name in own.all(kind)]
             for kind in ("profile", "device", "status", "general", "zdo")}
    left = [(kind, row) for kind, rest in own.rows.items() for row in rest] + sorted(own.unused_parameters)
    if left:
        sys.exit(f"{own_path}: about nothing in the table: {left}")
    if len(pool.text) > 0xFFFF:
        sys.exit("the names no longer fit 16-bit offsets")

    global_attributes = [attribute_row(pool, None, number, kind, "m", name)
                         for number, kind, name in GLOBAL_ATTRIBUTES]
    arrays = [("ClusterInfo", "CLUSTERS", clusters), ("AttributeInfo", "ATTRIBUTES", attributes),
              ("AttributeInfo", "GLOBAL_ATTRIBUTES", global_attributes),
              ("CommandInfo", "COMMANDS", commands), ("ParameterInfo", "PARAMETERS", parameters),
              ("ScaleInfo", "SCALES", scales), ("ValueName", "VALUES", values),
              ("IdName", "PROFILES", names["profile"]),
              ("IdName", "DEVICE_TYPES", names["device"]), ("IdName", "STATUSES", names["status"]),
              ("IdName", "GENERAL_COMMANDS", names["general"]), ("IdName", "ZDO_COMMANDS", names["zdo"])]
    with open(output, "w", encoding="ascii") as file:
        file.write("// Made by zcl_generate.py; the facts are in zcl_table.tsv and zcl_own.tsv.\n")
        for kind, name, lines in arrays:
            file.write(f"constexpr {kind} {name}[] = {{\n" + ",\n".join(lines) + "};\n")
        file.write("constexpr char STRINGS[] =\n")
        for text in pool.text.split("\0")[:-1]:
            file.write(f'"{text}\\0"\n')
        file.write(";\n")


if __name__ == "__main__":
    main()
