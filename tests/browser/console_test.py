#!/usr/bin/python3
"""The development cloud's console and sign-in page in headless Chromium.

    console_test.py SCREENSHOT_FOLDER [UNITTEST_ARGUMENT...]

Runs inside the lab beside lab/services (tests/browser/run starts it so).
"""
import base64
import http.server
import json
import os
import subprocess
import sys
import threading
import unittest
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

CONTROL = 'http://127.0.0.1:8079'
CONSOLE = CONTROL + '/console'
PAGES = ('accounts', 'devices', 'tokens', 'requests', 'faults')
EMAIL = 'anna@example.org'
PASSWORD = 'correct horse'
SERIAL = 'NL00000001A'
# Every character is one that a serial number may have.
HOSTILE_SERIAL = 'A<script>alert(1)</script>'
FONTS = '/tmp/fonts.conf'
PATIENCE = 30  # seconds; only a failing test waits so long

screenshots = None


def control(method, path, body=None):
    request = urllib.request.Request(CONTROL + '/v1' + path, method=method,
                                     data=json.dumps(body).encode() if body is not None else None,
                                     headers={'Content-Type': 'application/json'})
    with urllib.request.urlopen(request) as answer:
        text = answer.read()
    return json.loads(text) if text else None


def trust_the_cloud():
    """As an administrator would: the lab's authority goes into the browser's own store."""
    store = os.path.expanduser('~/.pki/nssdb')
    os.makedirs(store)
    run = ['certutil', '-d', 'sql:' + store]
    subprocess.run(run + ['-N', '--empty-password'], check=True)
    subprocess.run(run + ['-A', '-n', 'lab', '-t', 'C,,', '-i',
                          '/etc/ssl/certs/ca-certificates.crt'], check=True)


def show_fonts():
    with open(FONTS, 'w', encoding='utf-8') as file:
        file.write('<?xml version="1.0"?><fontconfig><dir>/usr/share/fonts</dir>'
                   '<cachedir>/tmp/fonts</cachedir><match><edit name="family" mode="append">'
                   '<string>DejaVu Sans</string></edit></match></fontconfig>')


def start_browser():
    options = webdriver.ChromeOptions()
    # The program itself: the script around it wants settings in /etc, which the lab does not have.
    options.binary_location = '/usr/lib/chromium/chromium'
    # The lab is the sandbox; its /dev/shm is small.
    for argument in ('--headless=new', '--no-sandbox', '--disable-dev-shm-usage', '--disable-gpu',
                     '--no-first-run', '--disable-background-networking'):
        options.add_argument(argument)
    service = Service('/usr/bin/chromedriver', env={**os.environ, 'FONTCONFIG_FILE': FONTS})
    return webdriver.Chrome(options=options, service=service)


class ConsoleTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        trust_the_cloud()
        show_fonts()
        control('POST', '/accounts', {'email': EMAIL, 'password': PASSWORD,
                                      'full_name': 'Anna <b>Example</b>'})
        control('POST', '/devices', {'serial': SERIAL, 'mac': '02:00:5e:10:00:01'})
        control('POST', '/devices', {'serial': HOSTILE_SERIAL, 'mac': '02:00:5e:10:00:02'})
        cls.browser = start_browser()
        cls.addClassCleanup(cls.browser.quit)

    def setUp(self):
        control('DELETE', '/faults')
        self.view(1280, 900)

    # Steps.

    def view(self, width, height, scheme='light'):
        self.browser.execute_cdp_cmd('Emulation.setDeviceMetricsOverride', {
            'width': width, 'height': height, 'deviceScaleFactor': 1, 'mobile': width < 600})
        self.browser.execute_cdp_cmd('Emulation.setEmulatedMedia', {
            'features': [{'name': 'prefers-color-scheme', 'value': scheme}]})

    def take_screenshot(self, name):
        shot = self.browser.execute_cdp_cmd('Page.captureScreenshot',
                                            {'captureBeyondViewport': True})
        with open(os.path.join(screenshots, name + '.png'), 'wb') as file:
            file.write(base64.b64decode(shot['data']))

    def take_screenshots(self, name):
        for suffix, view in (('', (1280, 900)), ('-dark', (1280, 900, 'dark')),
                             ('-phone', (390, 844))):
            self.view(*view)
            self.take_screenshot(name + suffix)
            self.assertLessEqual(
                self.browser.execute_script('return document.documentElement.scrollWidth'), view[0],
                name + suffix + ' is wider than the screen')
        self.view(1280, 900)

    def open(self, page):
        self.browser.get(f'{CONSOLE}/{page}')

    def find(self, css):
        return self.browser.find_element(By.CSS_SELECTOR, css)

    def fill(self, css, text):
        field = self.find(css)
        field.clear()
        field.send_keys(text)

    def wait(self, what, condition):
        return WebDriverWait(self.browser, PATIENCE).until(lambda _: condition(), what)

    def body(self):
        return self.find('body').text

    def press(self, *keys):
        self.browser.switch_to.active_element.send_keys(*keys)

    def tab_to(self, name):
        """Presses Tab until the element that a screen reader calls so has the focus."""
        seen = []
        while name not in seen:
            self.assertLess(len(seen), 200, f'{name} is not reached, only {seen}')
            self.press(Keys.TAB)
            focus = self.browser.switch_to.active_element
            seen.append(focus.accessible_name)
        outline = focus.value_of_css_property('outline-style')
        self.assertNotEqual(outline, 'none', f'{name} does not show that it has the focus')
        return focus

    def sign_in(self, password):
        self.fill('[name=email]', EMAIL)
        self.fill('[name=password]', password)
        self.find('button.main').click()

    def log_in(self):
        """A whole browser login; what nodelink-login said at its end, and its exit status."""
        with subprocess.Popen(['nodelink-login', '--browser'], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, text=True) as login:
            address = next(line for line in login.stdout if line.startswith('https://')).strip()
            self.browser.get(address)
            self.take_screenshots('sign-in')
            self.sign_in('wrong')
            self.wait('the refusal', lambda: self.find('[role=alert]'))
            self.take_screenshots('sign-in-refused')
            self.sign_in(PASSWORD)
            self.wait('the way back', lambda: 'code=' in self.browser.current_url)
            self.take_screenshots('signed-in')
            text, _ = login.communicate(self.browser.current_url + '\n')
            return text.splitlines()[-1], login.returncode

    # Tests.

    def test_a_browser_login_from_the_address_to_the_linked_device(self):
        self.assertEqual(self.log_in(), (f'Logged in as {EMAIL}', 0))
        self.open('devices')
        self.assertIn(EMAIL, self.find(f'#device-{SERIAL}').text)
        self.open('tokens')
        self.assertIn('good', self.find('#token-1').text)

    def test_a_fault_set_by_keyboard_alone_is_met_by_the_program(self):
        login = subprocess.run(['nodelink-login', '--password', EMAIL], input=PASSWORD + '\n',
                               text=True, check=True, stdout=subprocess.DEVNULL)
        self.assertEqual(login.returncode, 0)
        name = 'Status 500 for /device/api/report'
        self.browser.get(CONSOLE)
        self.assertEqual(self.tab_to('Skip to the content').text, 'Skip to the content')
        self.tab_to('Faults').send_keys(Keys.ENTER)
        self.wait('the page', lambda: self.browser.current_url.endswith('/faults'))
        self.tab_to('Skip to the content').send_keys(Keys.ENTER)
        self.tab_to(name).send_keys(Keys.SPACE)
        self.wait('the fault', lambda: 'aria-checked="true"' in self.browser.page_source)
        self.assertEqual(len(control('GET', '/faults')), 1)
        self.assertEqual(subprocess.run(['nodelink', '--report_info'], check=False).returncode, 255)
        focus = self.browser.switch_to.active_element
        self.assertEqual(focus.accessible_name, name, 'the focus went astray')
        focus.send_keys(Keys.SPACE)
        self.wait('its end', lambda: 'aria-checked="true"' not in self.browser.page_source)
        self.assertEqual(control('GET', '/faults'), [])
        self.assertEqual(subprocess.run(['nodelink', '--report_info'], check=False).returncode, 0)

    def test_each_page_can_be_looked_at(self):
        control('POST', '/faults', {'path': '/device/api/logout', 'status': 500, 'body': 'fault'})
        control('PUT', f'/devices/{SERIAL}/link', {'account': EMAIL})
        for page in PAGES:
            self.open(page)
            for control_element in self.browser.find_elements(
                    By.CSS_SELECTOR, 'a, button, select, input:not([type=hidden])'):
                self.assertNotEqual(control_element.accessible_name, '',
                                    control_element.get_attribute('outerHTML'))
            for details in self.browser.find_elements(By.TAG_NAME, 'summary')[:1]:
                details.click()
            self.take_screenshots(page)

    def test_what_a_device_says_is_shown_and_not_run(self):
        self.open('devices')  # an alert would make the next step fail
        self.assertIn(HOSTILE_SERIAL, self.body())
        self.open('accounts')
        self.assertIn('Anna <b>Example</b>', self.body())

    def test_accounts_and_schedules_can_be_changed(self):
        self.open('accounts')
        self.fill('.fields [name=email]', 'ben@example.org')
        self.fill('.fields [name=password]', 'other password')
        self.find('.fields button').click()
        self.wait('the account', lambda: 'ben@example.org' in self.body())
        self.open('devices')
        self.fill(f'#device-{SERIAL} [name=schedule]', '1 2 * * *')
        self.find(f'#device-{SERIAL} [name=schedule]').send_keys(Keys.ENTER)
        self.wait('the redirect', lambda: '#device-' in self.browser.current_url)
        self.assertEqual(control('GET', f'/devices/{SERIAL}')['report_cron_timestring'], '1 2 * * *')

    def test_pages_of_strangers_reach_nothing(self):
        with http.server.ThreadingHTTPServer(('127.0.0.1', 0), Stranger) as stranger:
            threading.Thread(target=stranger.serve_forever, daemon=True).start()
            for target, field in (('/v1/faults', '{"path":"*","status":500,"body":"'),
                                  ('/console/faults', 'on')):
                self.browser.get(f'http://127.0.0.1:{stranger.server_port}/')
                self.browser.execute_script(SEND_FORM, CONTROL + target, field)
                self.wait('the refusal', lambda: 'only for programs' in self.body())
            stranger.shutdown()
        self.browser.get('http://account.veltrix.example:8079/console')
        self.assertIn('only for programs', self.body())
        self.assertEqual(control('GET', '/faults'), [])


SEND_FORM = '''
const form = document.createElement('form');
form.method = 'post';
form.enctype = 'text/plain';
form.action = arguments[0];
const field = document.createElement('input');
field.name = arguments[1];
field.value = '"}';
form.append(field);
document.body.append(form);
form.submit();
'''


class Stranger(http.server.BaseHTTPRequestHandler):
    """A web page of another origin."""

    def do_GET(self):  # pylint: disable=invalid-name
        self.send_response(200)
        self.send_header('Content-Type', 'text/html')
        self.end_headers()
        self.wfile.write(b'<!DOCTYPE html><title>Stranger</title>')

    def log_message(self, *_):
        pass


if __name__ == '__main__':
    screenshots = sys.argv.pop(1)
    unittest.main(verbosity=2)
