#!/usr/bin/python3
"""The emulated device's web page in Debian's headless Chromium, driven through Selenium.

Each test runs its own device: orvello-service, and vrax-host with liborvello.so and the
reference player library at realtime pace, as a person would have it. A person types pairing
codes, presses the player's buttons and moves the volume; the test reads what the page shows and
what the control API says. Each test leaves a screenshot in SCREENSHOT_DIR.

Environment: VRAX_HOST, ORVELLO_MODULE, ORVELLO_SERVICE, OPLAYER_REF (the 1.0.0 library),
CHROMIUM, CHROMEDRIVER, SCREENSHOT_DIR.
"""
import base64
import json
import os
import shutil
import subprocess
import tempfile
import unittest
import urllib.error
import urllib.request

from selenium import webdriver
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

TIMEOUT = 20
PAIRING_ROW = 'form[data-path="orvello/browse/uiPairCode"]'


class Device:
    """The update service and an emulated device with the module, as child processes."""

    def __init__(self, work, environment=None):
        self.work = work
        self.service = None
        self.host = None
        self.host_log_path = os.path.join(work, 'host.log')
        self.files = []
        self._start_service()
        self._start_host(environment or {})

    def _start_service(self):
        directory = os.path.join(self.work, 'service')
        os.makedirs(directory)
        shutil.copy(os.environ['OPLAYER_REF'], os.path.join(directory, 'liboplayer-1.so'))
        self.service = subprocess.Popen(
            [os.environ['ORVELLO_SERVICE'], '--dir', directory, '--version', '1.0.0',
             '--library', 'liboplayer-1.so', '--stop-on-eof'],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._file('service.log'))
        self.service_port = self._port(self.service, 'listening on 127.0.0.1:')

    def _start_host(self, environment):
        data = os.path.join(self.work, 'device', 'data')
        os.makedirs(data)
        # Where the module looks for a library in a developer build tree, seen from the data directory.
        library = os.path.join(self.work, 'build', 'Hollowkit-blobs-links', 'Orvello', 'lib', 'linux_x86_64')
        os.makedirs(library)
        shutil.copy(os.environ['OPLAYER_REF'], os.path.join(library, 'liboplayer-1.so'))
        settings = os.path.join(self.work, 'device', 'settings.json')
        with open(settings, 'w') as file:
            json.dump({
                'settings/orvello/versionUrl': f'http://127.0.0.1:{self.service_port}/config.json',
                'settings/orvello/updateCheckIntervalSeconds': 3600,
                'settings/orvello/outputSampleRate': 44100,
                'settings/orvello/outputChannels': 2,
                'settings/orvello/cacheEnabled': True,
                'settings/orvello/provisioningVendorId': 'vendor-browser',
                'settings/system/serialNumber': 'SN-BROWSER-1',
                'settings/system/productName': 'Browser Test Amp',
            }, file)
        env = dict(os.environ, OPLAYER_REF_TRACK_SECONDS='60', **environment)
        self.host = subprocess.Popen(
            [os.environ['VRAX_HOST'], '--module', os.environ['ORVELLO_MODULE'], '--data-dir', data,
             '--settings', settings, '--audio-out', 'null', '--pace', 'realtime'],
            env=env, stdout=subprocess.PIPE, stderr=self._file('host.log'))
        self.port = self._port(self.host, 'control API listening on 127.0.0.1:')
        self.url = f'http://127.0.0.1:{self.port}/'

    def _file(self, name):
        self.files.append(open(os.path.join(self.work, name), 'wb'))
        return self.files[-1]

    @staticmethod
    def _port(process, prefix):
        line = process.stdout.readline().decode().strip()
        if not line.startswith(prefix):
            raise RuntimeError(f'{process.args[0]} said {line!r} instead of where it listens')
        return int(line[len(prefix):])

    def api(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        headers = {} if body is None else {'Content-Type': 'application/json'}
        request = urllib.request.Request(self.url.rstrip('/') + path, data=data, method=method, headers=headers)
        try:
            with urllib.request.urlopen(request, timeout=40) as answer:
                return answer.status, json.load(answer)
        except urllib.error.HTTPError as error:
            return error.code, json.load(error)

    def play_logic(self):
        return self.api('GET', '/api/playlogic')[1]

    def log(self):
        with open(self.host_log_path, encoding='utf-8', errors='replace') as file:
            return file.read()

    def stop(self):
        code = 0
        if self.host:
            self.host.terminate()
            code = self.host.wait(timeout=30)
            self.host.stdout.close()
            self.host = None
        if self.service:
            self.service.stdin.close()
            self.service.wait(timeout=30)
            self.service.stdout.close()
            self.service = None
        for file in self.files:
            file.close()
        if code != 0:
            raise RuntimeError(f'vrax-host ended with {code}:\n{self.log()}')


def chromium(profile, *switches):
    """Debian's headless Chromium through chromedriver, with its console kept for get_log('browser')."""
    options = webdriver.ChromeOptions()
    options.binary_location = os.environ['CHROMIUM']
    # The network is closed: without the background-networking switches Chromium's own
    # connections are refused and slow everything down.
    for switch in ('--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
                   '--disable-background-networking', '--disable-component-update', '--disable-sync',
                   f'--user-data-dir={profile}', '--window-size=1280,1000') + switches:
        options.add_argument(switch)
    options.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
    return webdriver.Chrome(service=Service(executable_path=os.environ['CHROMEDRIVER']), options=options)


class DevicePage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.profile = tempfile.mkdtemp(prefix='chromium-profile-')
        cls.driver = chromium(cls.profile)
        cls.screenshots = os.environ['SCREENSHOT_DIR']
        os.makedirs(cls.screenshots, exist_ok=True)

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        shutil.rmtree(cls.profile, ignore_errors=True)

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix='device-page-')
        self.device = None
        self.driver.set_window_size(1280, 1000)

    def tearDown(self):
        try:
            self.save_page(os.path.join(self.screenshots, f'{self._testMethodName}.png'))
        finally:
            if self.device:
                self.device.stop()
            shutil.rmtree(self.work, ignore_errors=True)

    # ---- helpers ------------------------------------------------------------------------

    def save_page(self, path):
        """The whole page, however long, at the window's width."""
        width, height = self.driver.execute_script(
            'return [document.documentElement.clientWidth, Math.ceil(document.body.getBoundingClientRect().height)];')
        shot = self.driver.execute_cdp_cmd('Page.captureScreenshot', {
            'format': 'png', 'captureBeyondViewport': True,
            'clip': {'x': 0, 'y': 0, 'width': width, 'height': height, 'scale': 1}})
        with open(path, 'wb') as file:
            file.write(base64.b64decode(shot['data']))

    def open_device(self, environment=None):
        self.device = Device(self.work, environment)
        self.driver.get(self.device.url)
        self.wait_text('connection', 'Live')
        return self.device

    def wait(self, condition, message):
        """Waits for condition; message (a text, or a function giving it) says what never happened."""
        try:
            return WebDriverWait(self.driver, TIMEOUT, poll_frequency=0.05).until(lambda driver: condition())
        except TimeoutException:
            self.fail(message() if callable(message) else message)

    def text(self, element_id):
        return self.driver.find_element(By.ID, element_id).text

    def wait_text(self, element_id, expected):
        self.wait(lambda: self.text(element_id) == expected,
                  lambda: f'#{element_id} never showed {expected!r} (it shows {self.text(element_id)!r})')

    def pairing_row(self):
        return self.wait(lambda: self.driver.find_elements(By.CSS_SELECTOR, PAIRING_ROW), 'no pairing row')[0]

    def type_code(self, code):
        field = self.pairing_row().find_element(By.TAG_NAME, 'input')
        field.clear()
        field.send_keys(code, Keys.ENTER)

    def pairing_status(self):
        return self.pairing_row().find_element(By.CLASS_NAME, 'status').text

    def pair_through_api(self):
        status, body = self.device.api('POST', '/api/value', {'path': 'orvello/browse/uiPairCode', 'value': 'ABCDEF'})
        self.assertEqual(status, 200, body)
        self.wait_text('state', 'Playing')

    def slider(self):
        return self.driver.find_element(By.ID, 'volume')

    # ---- tests --------------------------------------------------------------------------

    def test_refused_codes_show_the_reply_error(self):
        self.open_device()
        row = self.pairing_row()
        self.assertEqual(self.driver.find_element(By.CSS_SELECTOR, '#pages h3').text, 'Orvello Streams')
        self.assertEqual(row.find_element(By.TAG_NAME, 'label').text, 'Pairing Code')
        for code, error in (('ABC1EF', 'Invalid pairing code'),
                            ('ZZZ-ABC', 'Error while initiating device pairing, error: '
                                        'The pairing code ZZZABC was refused by the service')):
            self.type_code(code)
            self.wait(lambda: self.pairing_status() == error,
                      lambda: f'{code}: the status shows {self.pairing_status()!r}, not {error!r}')
            field = row.find_element(By.TAG_NAME, 'input')
            self.assertEqual(field.get_attribute('aria-invalid'), 'true')
            self.assertIn('error', row.find_element(By.CLASS_NAME, 'status').get_attribute('class'))
        self.assertEqual(self.text('paired'), 'Not paired')
        self.assertEqual(self.device.play_logic()['state'], 0)

    def test_good_code_pairs_and_shows_the_track(self):
        self.open_device()
        # The page fills in what it shows from its first event, which may still be on its way.
        self.wait_text('state', 'Not started')
        self.wait_text('version', 'not loaded')
        self.type_code('ABC-DEF')
        self.wait(lambda: self.pairing_status() == 'Sent; the device is working on it…', 'no pending status')
        self.wait(lambda: self.pairing_status() == 'Accepted.', lambda: f'status {self.pairing_status()!r}')
        self.wait(lambda: self.text('paired').startswith('Paired (device id oplayer-ref-'), 'not shown as paired')
        self.wait_text('state', 'Playing')
        track = self.device.play_logic()
        self.assertTrue(track['title'] and track['artist'] and track['album'], track)
        self.wait_text('title', track['title'])
        self.assertEqual(self.text('artist'), track['artist'])
        self.assertEqual(self.text('album'), track['album'])
        self.wait_text('version', '1.0.0')
        self.wait_text('sender', 'Sender connected')
        # The reference library's artwork lives on an .invalid host: the placeholder shows.
        self.assertTrue(self.driver.find_element(By.ID, 'art-placeholder').is_displayed())
        self.assertFalse(self.driver.find_element(By.ID, 'art').is_displayed())
        progress = self.driver.find_element(By.ID, 'progress')
        self.wait(lambda: float(progress.get_attribute('value')) >= 1000, 'the progress bar does not move')
        self.assertEqual(float(progress.get_attribute('max')), 60000)
        self.wait(lambda: float(self.text('seconds').split()[0]) >= 1.0, 'no seconds played')
        log = lambda: [line.text for line in self.driver.find_elements(By.CSS_SELECTOR, '#log li')]
        self.wait(lambda: any('INFO  [Orvello] Pairing successful' in line for line in log()), 'no log line')
        self.assertFalse([line for line in log() if ' DEBUG ' in line or ' TRACE ' in line])

    def test_player_buttons_change_the_state(self):
        self.open_device()
        self.pair_through_api()
        for button, words, state in (('pause', 'Paused', 3), ('play', 'Playing', 2), ('stop', 'Stopped', 0)):
            self.driver.find_element(By.ID, button).click()
            self.wait_text('state', words)
            self.assertEqual(self.device.play_logic()['state'], state)
            self.assertEqual(self.text('player-error'), '')
        # The device's refusal shows under the buttons.
        self.driver.find_element(By.ID, 'pause').click()
        self.wait_text('player-error', 'Nothing is playing')

    def test_volume_slider_sets_the_system_volume(self):
        self.open_device()
        self.pair_through_api()
        slider = self.slider()
        self.wait(lambda: slider.get_attribute('value') == '50', 'the slider does not start at the system volume')
        # Dragged with the mouse to three quarters of its width...
        width = slider.size['width']
        ActionChains(self.driver).move_to_element_with_offset(slider, width // 4, 0).click_and_hold() \
            .move_by_offset(-width // 8, 0).release().perform()
        moved = int(slider.get_attribute('value'))
        self.assertTrue(55 <= moved <= 70, moved)
        self.wait(lambda: self.device.api('GET', '/api/volume')[1]['volume'] == moved,
                  f'the system volume did not follow the slider to {moved}')
        # ...and with the keyboard.
        slider.send_keys(Keys.HOME)
        self.wait(lambda: self.device.api('GET', '/api/volume')[1]['volume'] == 0, 'Home did not reach the device')
        # The device's own announcement of 0 comes back as an event; arrows pressed before it
        # arrives would start again from what it says.
        self.wait(lambda: slider.get_attribute('value') == '0' and self.text('volume-value') == '0',
                  'the slider did not settle at 0')
        slider.send_keys(Keys.ARROW_RIGHT * 5)
        self.wait(lambda: self.device.api('GET', '/api/volume')[1]['volume'] == 5, 'the arrows did not reach the device')
        self.wait_text('volume-value', '5')

    def test_library_volume_moves_the_slider(self):
        # The reference library turns its own volume to 35 after two seconds of playback, as the
        # service does when its owner changes the volume; the module mirrors it into the system volume.
        self.open_device({'OPLAYER_REF_REMOTE_VOLUME': '2:35'})
        slider = self.slider()
        self.wait(lambda: slider.get_attribute('value') == '50', 'the slider does not show the system volume')
        self.pair_through_api()
        self.wait(lambda: slider.get_attribute('value') == '35',
                  lambda: f'the slider stays at {slider.get_attribute("value")}')
        self.assertEqual(self.text('volume-value'), '35')
        self.assertEqual(self.device.api('GET', '/api/volume')[1]['volume'], 35)

    def test_keyboard_alone(self):
        self.open_device()
        self.pairing_row()
        expected = ['Pairing Code', 'Enter', 'Play', 'Pause', 'Stop', 'Volume', 'Mute', 'Log']
        names = []
        for _ in expected:
            ActionChains(self.driver).send_keys(Keys.TAB).perform()
            focused = self.driver.switch_to.active_element
            names.append(self.driver.execute_script(ACCESSIBLE_NAME, focused))
            outline = self.driver.execute_script(
                'const s = getComputedStyle(arguments[0]); return [s.outlineStyle, parseFloat(s.outlineWidth)];', focused)
            self.assertTrue(outline[0] != 'none' and outline[1] >= 2, f'{names[-1]}: no visible focus ({outline})')
        self.assertEqual(names, expected)
        # Back to the pairing code, then pairing and pausing with keys only.
        for _ in expected[1:]:
            ActionChains(self.driver).key_down(Keys.SHIFT).send_keys(Keys.TAB).key_up(Keys.SHIFT).perform()
        self.assertEqual(self.driver.execute_script(ACCESSIBLE_NAME, self.driver.switch_to.active_element),
                         'Pairing Code')
        ActionChains(self.driver).send_keys('ABCDEF', Keys.ENTER).perform()
        self.wait(lambda: self.pairing_status() == 'Accepted.', lambda: f'status {self.pairing_status()!r}')
        self.wait_text('state', 'Playing')
        ActionChains(self.driver).send_keys(Keys.TAB * 3, Keys.SPACE).perform()
        self.wait_text('state', 'Paused')

    def test_page_keeps_to_its_policy(self):
        # The page's Content-Security-Policy lets it load its own files and the library's https
        # artwork: Chromium asks for the picture (the .invalid host then fails) and reports no violation.
        self.driver.get_log('browser')
        self.open_device()
        self.pair_through_api()
        self.wait(lambda: self.device.play_logic()['icon'].startswith('https://'), 'no artwork URL')
        console = []
        self.wait(lambda: console.extend(self.driver.get_log('browser')) or
                  any('art.oplayer-ref.invalid' in entry['message'] for entry in console),
                  lambda: f'Chromium never asked for the artwork: {console}')
        self.assertEqual([entry['message'] for entry in console if 'Content Security Policy' in entry['message']], [])

    def test_phone_width(self):
        self.open_device()
        self.pair_through_api()
        self.driver.set_window_size(390, 844)
        self.wait_text('version', '1.0.0')
        overflow = self.driver.execute_script(
            'return [document.documentElement.scrollWidth, document.documentElement.clientWidth,'
            ' [...document.querySelectorAll("main > section")].map(s => s.getBoundingClientRect().right)];')
        self.assertLessEqual(overflow[0], overflow[1], 'the page scrolls sideways')
        for right in overflow[2]:
            self.assertLessEqual(right, overflow[1])


# The name a screen reader announces for a control: its label, aria-label(ledby) or text.
ACCESSIBLE_NAME = '''
const e = arguments[0];
if (e.labels && e.labels.length) return e.labels[0].textContent.trim();
if (e.getAttribute('aria-label')) return e.getAttribute('aria-label');
const by = e.getAttribute('aria-labelledby');
if (by) return document.getElementById(by).firstChild.textContent.trim();
return e.textContent.trim();
'''

if __name__ == '__main__':
    unittest.main(verbosity=2)
