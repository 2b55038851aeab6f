// An OpenID Connect server for one public client that must use PKCE, as others built it.
//
//   node provider.mjs SETTINGS
//
// SETTINGS is a JSON file: "modules" (the folder that oidc-provider is installed in), "issuer",
// "address" and "port" to listen on, "key" and "certificate" (PEM), "client_id",
// "login_redirect_uri" and "routes" (paths by the names that oidc-provider gives them).
//
// Prints "ready" when it serves, and then a line for each answer of the token endpoint:
// "granted TYPE" or "refused TYPE: ERROR", where TYPE is the grant type.
import { readFileSync } from 'node:fs';
import { createServer } from 'node:https';
import { createRequire } from 'node:module';
import { pathToFileURL } from 'node:url';

const settings = JSON.parse(readFileSync(process.argv[2], 'utf8'));
const resolve = createRequire(`${settings.modules}/`).resolve;
const { default: Provider } = await import(pathToFileURL(resolve('oidc-provider')));

const client = {
  client_id: settings.client_id,
  token_endpoint_auth_method: 'none',
  grant_types: ['authorization_code', 'refresh_token'],
  response_types: ['code'],
  redirect_uris: [settings.login_redirect_uri],
};

const provider = new Provider(settings.issuer, {
  clients: [client],
  routes: settings.routes,
  pkce: { required: () => true },
  rotateRefreshToken: true,
  // This server grants "offline_access" only to a client that asks for consent each time
  // (prompt=consent), which the device does not: it may stay signed in all the same.
  issueRefreshToken: () => true,
  expiresWithSession: () => false,
  cookies: { keys: ['of this test run only'] },
});

console.info = console.error; // the server's own notices
const grantType = (context) => context.oidc.params?.grant_type;
provider.on('grant.success', (context) => console.log(`granted ${grantType(context)}`));
provider.on('grant.error', (context, error) =>
  console.log(`refused ${grantType(context)}: ${error.error}`));
provider.on('server_error', (context, error) => console.error(error));

createServer({ key: settings.key, cert: settings.certificate }, provider.callback())
  .listen(settings.port, settings.address, () => console.log('ready'));
