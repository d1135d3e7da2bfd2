#!/usr/bin/env python3
"""Holds the table of layers: which file may include which. Prints every include that breaks it.

A file may include its own layer and what its row lists, nothing else. Public headers include only
public headers, the standard library and Boost without Asio; the programs see public headers only;
vexsim sees nothing of ours at all.
"""
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)

# Names of sources without ending; a trailing * stands for any rest.
LAYERS = {
    'helpers': 'request_packets user_agent device_type device_key upnp_constants soap_fault '
               'http_feed listener_hooks',
    'network': 'network_layer network_addresses networkinterface* networkmonitor '
               'net_change_listener fd_diagnostics server_notify udp_server multicast_server '
               'tcp_server servermanager incoming_tcp_session outgoing* clientmanager '
               'looked_up_ahead callbackhandler datagram_feed datagram_server header_end message_budget '
               'packet_queue pattern_table reading_sessions network_listeners network_types',
    'streaming': 'streaming*',
    'discovery': 'cp_discovery cp_discovery_manager discovery_* now_requesting* '
                 'description_listener device device_description_parser device_list held_bytes observer '
                 'cp_network_state_listener rescan* auto_rescan* location_check',
    'control': 'cp_control control_* action_* subscribe_* unsubscribe_* resubscribe_* '
               'event_callback event_delivery',
    'cp_utils': 'cp_utils* didl_*',
    'framework': 'framework_controller_cp',
    'generic': 'generic_*',
}
UTILITY_FOLDERS = {'string': 'string', 'timer': 'timer', 'httpparser': 'httpparser',
                   'xmlparser': 'xml', 'file_io': 'file_io'}
UTILITY_HEADERS = {
    'string_utils': 'string', 'time_utils': 'timer', 'timer': 'timer', 'httpinfo': 'httpparser',
    'httpparser': 'httpparser', 'file_utils': 'file_io', 'makedomtree': 'xml',
    'embeddedxmlparser': 'xml', 'xmlparsedata': 'xml', 'xmlparser': 'xml', 'xml_utils': 'xml',
}
BASE_HEADERS = {'export', 'vexuncopyable', 'result_codes'}
UTILITIES = set(UTILITY_FOLDERS.values())
FACADE = {'network_layer.h', 'network_listeners.h', 'networkmonitor.h', 'network_types.h'}

# Layer -> whole layers it may include, and single headers beside them.
BELOW = {'base'} | UTILITIES | {'helpers'}
ALLOWED = {
    'base': (set(), set()),
    'string': ({'base'}, set()),
    'timer': ({'base'}, set()),
    'httpparser': ({'base', 'string'}, set()),
    'xml': ({'base'}, set()),
    'file_io': ({'base'}, set()),
    'helpers': ({'base'} | UTILITIES, set()),
    'network': (BELOW, set()),
    'streaming': (BELOW, FACADE),
    'discovery': (BELOW, FACADE | {'streaming.h', 'streaming_types.h'}),
    'control': (BELOW, FACADE | {'errorcodes.h'}),
    'cp_utils': (BELOW, {'cp_discovery.h'}),
    'framework': ({'base'}, FACADE | {'timer.h', 'cp_discovery.h', 'cp_control.h',
                                      'errorcodes.h'}),
    'generic': ({'base'}, {'string_utils.h', 'errorcodes.h', 'network_layer.h',
                           'network_listeners.h', 'network_types.h', 'cp_discovery.h',
                           'cp_control.h', 'cp_utils.h', 'framework_controller_cp.h'}),
}
# Private headers that a layer may include beside its row.
PRIVATE_SINGLES = {'generic': {'src/device_type.h', 'src/request_packets.h',
                               'src/discovery_delivery.h', 'src/event_delivery.h',
                               'src/looked_up_ahead.h'},
                   'control': {'src/looked_up_ahead.h'}}
MANAGER_ONLY_GENERIC = 'generic_cp_manager.h'


def matches(name, patterns):
    return any(name == p or (p.endswith('*') and name.startswith(p[:-1]))
               for p in patterns.split())


def layer_of(path):
    """The layer of a file, by its folder and name; None for what is outside the table."""
    folder, stem = path.parts[0], path.stem
    if folder == 'base' or stem in BASE_HEADERS:
        return 'base'
    if folder in UTILITY_FOLDERS and stem not in UTILITY_HEADERS:
        return UTILITY_FOLDERS[folder]
    if stem in UTILITY_HEADERS:
        return UTILITY_HEADERS[stem]
    if stem == 'errorcodes':
        return 'generic'
    for layer, patterns in LAYERS.items():
        if matches(stem, patterns):
            return layer
    return None


def is_public(path):
    return path.parts[:2] == ('include', 'vexupnpcp')


def target_of(path, quote, name):
    """The file of ours that an include names, relative to the root, or None."""
    if name.startswith('vexupnpcp/'):
        return Path('include') / name
    if quote == '<':
        return None
    for candidate in (Path(name), path.parent / name):
        if (ROOT / candidate).is_file():
            return candidate
    return Path(name)


def check_library_file(path, includes):
    layer = layer_of(path)
    if layer is None:
        yield f'{path}: belongs to no layer; add it to tools/check_includes.py'
        return
    layers, headers = ALLOWED[layer]
    for quote, name in includes:
        target = target_of(path, quote, name)
        if is_public(path) and 'boost/asio' in name:
            yield f'{path}: a public header includes Asio ({name})'
        if target is None:
            continue
        if is_public(path) and not is_public(target):
            yield f'{path}: a public header includes the private {target}'
        other = layer_of(target)
        # A layer's own public header is part of it; a private one is not part of the public side.
        single = (target.name in headers and is_public(target)
                  or str(target) in PRIVATE_SINGLES.get(layer, ()))
        if other != layer and other not in layers and not single:
            yield f'{path} ({layer}) may not include {target} ({other})'
        if target.name == MANAGER_ONLY_GENERIC and layer != 'generic':
            yield f'{path}: {MANAGER_ONLY_GENERIC} is for generic_* only'


def check_program_file(path, includes):
    for quote, name in includes:
        target = target_of(path, quote, name)
        if target is None or target.parts[:2] == path.parts[:2] or target.parts[0] == 'examples':
            continue
        if path.parts[:2] == ('apps', 'vexsim'):
            yield f'{path}: vexsim shares nothing with the library ({name})'
        elif not is_public(target):
            yield f'{path}: programs see public headers only ({name})'


def check_plain_header(text):
    for _, name in INCLUDE.findall(text):
        if not name.startswith('vexupnpcp/'):
            yield f'include/vexupnpcp/generic_cp.h: the plain-function header includes {name}'
    if 'std::' in text or 'boost' in text.lower():
        yield 'include/vexupnpcp/generic_cp.h: the plain-function header speaks of std:: or Boost'


def main():
    listed = subprocess.run(['git', 'ls-files', '-co', '--exclude-standard', '*.h', '*.cpp', '*.c'],
                            cwd=ROOT, check=True, capture_output=True, text=True).stdout.split()
    faults = []
    for name in listed:
        path = Path(name)
        if not (ROOT / path).is_file():
            continue
        text = (ROOT / path).read_text(encoding='utf-8')
        includes = INCLUDE.findall(text)
        if path.parts[0] in {'base', 'src', 'include'} | set(UTILITY_FOLDERS):
            faults += check_library_file(path, includes)
        elif path.parts[0] in {'apps', 'examples'}:
            faults += check_program_file(path, includes)
        if name == 'include/vexupnpcp/generic_cp.h':
            faults += check_plain_header(text)
    for fault in faults:
        print(fault)
    print(f'layers: {len(listed)} files, {len(faults)} faults')
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
